#include "control_extension/connection.h"

#include <sys/socket.h>

#include <cerrno>

namespace qel::control_extension {
namespace {

constexpr std::size_t kBufferLimit = 256 * 1024;
constexpr std::size_t kReadSize = 64 * 1024;

bool WouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

bool Connection::Flow::Full() const {
  return waiting.size() >= kBufferLimit;
}

Connection::Connection(UniqueFd client, UniqueFd server, ControlState& state)
    : client_(std::move(client)),
      server_(std::move(server)),
      requests_(conversation_, state),
      replies_(conversation_, state) {}

std::array<pollfd, 2> Connection::Wanted() const {
  const auto entry = [](int descriptor, const Flow& in, const Flow& out) {
    const int events = (in.ended || in.Full() ? 0 : POLLIN) | (out.Idle() ? 0 : POLLOUT);
    // poll() ignores a negative descriptor. Otherwise it would report a closed side again and again.
    return pollfd{events != 0 ? descriptor : -1, static_cast<short>(events), 0};
  };
  return {entry(client_.Get(), to_server_, to_client_), entry(server_.Get(), to_client_, to_server_)};
}

bool Connection::Move(const pollfd& client_ready, const pollfd& server_ready) {
  constexpr int kReadable = POLLIN | POLLHUP | POLLERR;
  if ((client_ready.revents & kReadable) != 0 && !Read(client_.Get(), requests_, to_server_)) {
    return false;
  }
  if ((server_ready.revents & kReadable) != 0 && !Read(server_.Get(), replies_, to_client_)) {
    return false;
  }
  if (!Write(server_.Get(), to_server_) || !Write(client_.Get(), to_client_)) {
    return false;
  }
  // The bytes that one side has sent before it closed the connection are still sent to the other side.
  return !(to_server_.ended && to_server_.Idle()) && !(to_client_.ended && to_client_.Idle());
}

// Returns false when the source has failed.
template <typename Stream>
bool Connection::Read(int source, Stream& stream, Flow& flow) {
  if (flow.ended || flow.Full()) {
    return true;
  }
  std::array<std::uint8_t, kReadSize> buffer;
  const ssize_t count = recv(source, buffer.data(), buffer.size(), 0);
  if (count < 0) {
    return WouldBlock();
  }
  if (count == 0) {
    flow.ended = true;
    return true;
  }
  stream.Feed({buffer.data(), static_cast<std::size_t>(count)}, flow.waiting);
  return true;
}

// Returns false when the target has closed the connection.
bool Connection::Write(int target, Flow& flow) {
  Bytes& waiting = flow.waiting;
  while (!flow.Idle()) {
    const ssize_t count = send(target, waiting.data(), waiting.size(), MSG_NOSIGNAL);
    if (count < 0) {
      return WouldBlock();
    }
    waiting.erase(waiting.begin(), waiting.begin() + count);
  }
  return true;
}

}  // namespace qel::control_extension
