#include "apps/local_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "log/log.h"

namespace qel {
namespace {

constexpr std::string_view kSocketName = "corvessan-tdl-socket";
constexpr int kBacklog = 1;

// Without free descriptors or memory, accept() fails at once as long as a client is waiting.
constexpr std::chrono::seconds kPauseAfterFailure{1};

// In the abstract namespace the whole path field is the name: a zero byte, the text, and zero bytes up to the end.
sockaddr_un Address() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kSocketName.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

void LocalSocket::ClearStop() {
  stop_.Clear();
}

void LocalSocket::Stop() {
  stop_.Set();
  const std::lock_guard guard(socket_lock_);
  if (listen_socket_.IsOpen()) {
    shutdown(listen_socket_.Get(), SHUT_RDWR);  // ends a waiting accept()
  }
}

void LocalSocket::LocalSocketThread() {
  if (!Open()) {
    return;
  }
  LogInfo(kModuleAgent, "Listening socket initialized");
  while (!stop_.IsSet()) {
    FileDescriptor connection(accept4(listen_socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.IsOpen()) {
      const int error = errno;
      LogWarning(kModuleAgent, "Warning: failed to accept connection: %s", std::strerror(error));
      if (error != EINTR && error != ECONNABORTED) {
        stop_.WaitFor(kPauseAfterFailure);
      }
      continue;
    }
    Serve(std::move(connection));
  }
  Close();
  LogInfo(kModuleAgent, "Listening socket closed");
}

// Creates the listening socket. A failure is logged; then no socket is open.
bool LocalSocket::Open() {
  FileDescriptor opened(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!opened.IsOpen()) {
    LogError(kModuleAgent, "Error: failed to open listening socket:%s", std::strerror(errno));
    return false;
  }
  {
    const std::lock_guard guard(socket_lock_);
    listen_socket_ = std::move(opened);
  }
  const sockaddr_un address = Address();
  if (bind(listen_socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    LogError(kModuleAgent, "Error: failed to bind socket: %s", std::strerror(errno));
    Close();
    return false;
  }
  if (listen(listen_socket_.Get(), kBacklog) != 0) {
    LogError(kModuleAgent, "Error: failed to listen socket: %s", std::strerror(errno));
    Close();
    return false;
  }
  return true;
}

void LocalSocket::Close() {
  const std::lock_guard guard(socket_lock_);
  if (!listen_socket_.Close()) {
    LogError(kModuleAgent, "Error: failed to close socket: %s", std::strerror(errno));
  }
}

// The four bytes fit into the buffer of a new connection, so a client that does not read cannot block the thread.
// MSG_NOSIGNAL: a client that has closed the connection must not cause SIGPIPE.
void LocalSocket::Serve(FileDescriptor connection) {
  const auto count = static_cast<std::uint32_t>(registry_.ProcessCount());
  if (send(connection.Get(), &count, sizeof count, MSG_NOSIGNAL) < 0) {
    LogError(kModuleAgent, "Error: failed to write to connection: %s", std::strerror(errno));
  }
  if (!connection.Close()) {
    LogError(kModuleAgent, "Error: failed to close connection: %s", std::strerror(errno));
  }
}

}  // namespace qel
