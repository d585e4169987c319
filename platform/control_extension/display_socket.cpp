#include "control_extension/display_socket.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace qel::control_extension {
namespace {

constexpr int kFirstNumber = 50;
constexpr int kLastNumber = 999;
constexpr const char* kSocketDirectory = "/tmp/.X11-unix";

std::string SocketPath(int number) {
  return std::string(kSocketDirectory) + "/X" + std::to_string(number);
}

std::string LockPath(int number) {
  return "/tmp/.X" + std::to_string(number) + "-lock";
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

UniqueFd NewSocket(int flags) {
  UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!made) {
    throw std::system_error(errno, std::generic_category(), "socket");
  }
  return made;
}

// Whether the process whose id is in the lock file has ended.
bool IsStale(const std::string& lock_path) {
  const UniqueFd file(open(lock_path.c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 12> text{};
  if (!file || read(file.Get(), text.data(), text.size() - 1) <= 0) {
    return false;
  }
  const long owner = std::strtol(text.data(), nullptr, 10);
  return owner > 0 && kill(static_cast<pid_t>(owner), 0) != 0 && errno == ESRCH;
}

}  // namespace

DisplaySocket::DisplaySocket() {
  mkdir(kSocketDirectory, 01777);
  for (number_ = kFirstNumber; !Lock(); ++number_) {
    if (number_ == kLastNumber) {
      throw std::system_error(EADDRINUSE, std::generic_category(), "no display number is free");
    }
  }
  try {
    Listen();
  } catch (...) {
    unlink(LockPath(number_).c_str());
    throw;
  }
}

DisplaySocket::~DisplaySocket() {
  unlink(SocketPath(number_).c_str());
  unlink(LockPath(number_).c_str());
}

// X servers reserve a display number with a lock file. It contains the process id, right-aligned in ten columns.
bool DisplaySocket::Lock() {
  const std::string path = LockPath(number_);
  if (IsStale(path)) {
    unlink(path.c_str());
  }
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444));
  return file && dprintf(file.Get(), "%10d\n", static_cast<int>(getpid())) > 0;
}

void DisplaySocket::Listen() {
  const std::string path = SocketPath(number_);
  unlink(path.c_str());  // a socket left by a server that crashed; this process has the lock
  const sockaddr_un address = AddressOf(path);
  socket_ = NewSocket(SOCK_NONBLOCK);
  if (bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket_.Get(), SOMAXCONN) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  chmod(path.c_str(), 0777);
}

UniqueFd DisplaySocket::Accept() const {
  return UniqueFd(accept4(socket_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

int DisplayNumber(const std::string& display) {
  int number = -1;
  const char* const end = display.data() + display.size();
  if (!display.starts_with(':')) {
    return -1;
  }
  const auto [rest, error] = std::from_chars(display.data() + 1, end, number);
  return error == std::errc{} && number >= 0 && (rest == end || *rest == '.') ? number : -1;
}

UniqueFd ConnectToDisplay(int number) {
  const sockaddr_un address = AddressOf(SocketPath(number));
  UniqueFd made = NewSocket(0);
  if (connect(made.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return UniqueFd();
  }
  fcntl(made.Get(), F_SETFL, O_NONBLOCK);
  return made;
}

}  // namespace qel::control_extension
