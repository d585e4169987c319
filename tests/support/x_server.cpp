#include "support/x_server.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace qel::test {
namespace {

constexpr int kStartTimeoutMs = 20'000;

// The display number that the server prints, with a newline, once it accepts connections.
std::string ReadDisplayNumber(int descriptor) {
  std::string number;
  while (true) {
    pollfd readable{descriptor, POLLIN, 0};
    if (poll(&readable, 1, kStartTimeoutMs) <= 0) {
      throw std::runtime_error("the X server did not start in time");
    }
    char character = 0;
    if (read(descriptor, &character, 1) != 1) {
      throw std::runtime_error("the X server ended at its start");
    }
    if (character == '\n') {
      return number;
    }
    number += character;
  }
}

}  // namespace

XServer::XServer(const std::vector<std::string>& extra_arguments) {
  std::signal(SIGPIPE, SIG_IGN);  // Xlib may write to a server that has just ended
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
  ChildOptions options;
  options.arguments = {
      "Xvfb",      "-displayfd", std::to_string(pipe[1]), "-screen", "0", "1280x1024x24", "-ac", "-noreset",
      "-nolisten", "tcp"};
  options.arguments.insert(options.arguments.end(), extra_arguments.begin(), extra_arguments.end());
  options.inherited = {pipe[1]};
  options.standard_error = quiet;
  process_ = std::make_unique<ChildProcess>(options);
  close(quiet);
  close(pipe[1]);
  try {
    display_ = ":" + ReadDisplayNumber(pipe[0]);
  } catch (...) {
    close(pipe[0]);
    throw;
  }
  close(pipe[0]);
}

XServer::~XServer() {
  process_->Kill(SIGTERM);
  process_->Wait();
}

void XServer::Kill() {
  process_->Kill(SIGKILL);
  process_->Wait();
}

}  // namespace qel::test
