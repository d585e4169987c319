#include "support/session_bus.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace qel::test {

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
