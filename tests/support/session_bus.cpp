#include "support/session_bus.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace qel::test {

SessionBus::SessionBus(const std::string& display) {
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
  ChildOptions options{
      .arguments = {"dbus-daemon", "--session", "--nofork", "--print-address=" + std::to_string(pipe[1])},
      .standard_output = quiet,
      .standard_error = quiet,
      .inherited = {pipe[1]}};
  if (!display.empty()) {
    options.environment = {{"DISPLAY", display}};
  }
  process_ = std::make_unique<ChildProcess>(options);
  close(quiet);
  close(pipe[1]);
  std::array<char, 512> text{};
  const ssize_t length = read(pipe[0], text.data(), text.size());
  close(pipe[0]);
  if (length <= 1) {
    throw std::runtime_error("dbus-daemon does not start");
  }
  address_.assign(text.data(), static_cast<std::size_t>(length) - 1);
}

std::string RunOnSessionBus(const TempDir& home, const std::string& script,
                            const decltype(ChildOptions::environment)& environment) {
  ChildOptions options{
      .arguments = {"dbus-run-session", "--", "sh", "-ec", "cd \"$HOME\"; exec >output; " + script},
      .environment = {{"HOME", home.Path().string()},
                      {"XDG_RUNTIME_DIR", home.Path().string()},
                      {"ASAN_OPTIONS", "detect_leaks=0"}}};  // the libraries of desktops keep what they allocate
  options.environment.insert(options.environment.end(), environment.begin(), environment.end());
  ChildProcess session(options);
  const auto status = session.Wait(std::chrono::seconds(60));
  EXPECT_TRUE(status && status->exit_code == 0) << script;
  std::ifstream output(home.Path() / "output");
  return {std::istreambuf_iterator<char>(output), {}};
}

}  // namespace qel::test
