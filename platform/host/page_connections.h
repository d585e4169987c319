// The connections of the page's server, seen from outside of the library that serves them.
#pragma once

#include <cstdint>

namespace qel::host {

// Shuts down this process's connections at a port that have received at least so many bytes. Their threads see the end
// of the connection.
void ShutDownConnections(int port, std::uint64_t received);

}  // namespace qel::host
