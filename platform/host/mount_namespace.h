// The private mount namespace in which the device file exists.
#pragma once

#include <string>

namespace qel::host {

// Moves this process into a new mount namespace. Its mounts are not visible outside and end with the last process in
// it; programs that this process starts are in it, too. Without root rights, a user namespace that maps the user to
// itself is created first. Must be called before the process has a second thread. Returns false, with the reason in
// `error`, on failure; then the process should end.
bool EnterPrivateMountNamespace(std::string& error);

}  // namespace qel::host
