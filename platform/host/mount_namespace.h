// The private view of the file system in which the device file appears.
#pragma once

#include <string>

namespace qel::host {

// Gives this process a mount namespace of its own, in which its mounts stay unseen from outside and end with its last
// process; programs that it starts live in it too. Without root rights it is made within a user namespace that maps the
// user to itself. To be called before the process has a second thread. False and a reason where it cannot be done;
// better to end the process then.
bool EnterPrivateMountNamespace(std::string& error);

}  // namespace qel::host
