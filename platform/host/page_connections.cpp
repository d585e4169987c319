#include "host/page_connections.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace qel::host {

void ShutDownConnections(int port, std::uint64_t received) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size) != 0) continue;
    // The port is at the same place for both families.
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    const bool internet = own.ss_family == AF_INET || own.ss_family == AF_INET6;
    sockaddr_in address{};
    std::memcpy(&address, &own, sizeof address);
    if (!internet || ntohs(address.sin_port) != port) continue;
    tcp_info info{};
    size = sizeof info;
    getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size);
    if (info.tcpi_bytes_received < received) continue;
    // A client that still sends is told so, instead of waiting until somebody reads.
    const linger reset{1, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    shutdown(descriptor, SHUT_RDWR);
  }
}

}  // namespace qel::host
