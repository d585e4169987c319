#include "support/session_bus.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace qel::test {

SessionBus::SessionBus(decltype(ChildOptions::environment) environment) {
  address_ = StartServer(process_, {.arguments = {"dbus-daemon", "--session", "--nofork", "--print-address=3"},
                                    .environment = std::move(environment)});
}

std::string RunOnSessionBus(const TempDir& home, const std::string& script,
                            decltype(ChildOptions::environment) environment) {
  environment.insert(environment.end(), {{"HOME", home.Path().string()},
                                         {"XDG_RUNTIME_DIR", home.Path().string()},
                                         // Desktop libraries do not free everything.
                                         {"ASAN_OPTIONS", "detect_leaks=0"}});
  const SessionBus bus(environment);
  environment.emplace_back("DBUS_SESSION_BUS_ADDRESS", bus.Address());
  ChildProcess session(
      {.arguments = {"sh", "-ec", "cd \"$HOME\"; exec >output; " + script}, .environment = std::move(environment)});
  const auto status = session.Wait(std::chrono::seconds(60));
  EXPECT_TRUE(status && status->exit_code == 0) << script;
  std::ifstream output(home.Path() / "output");
  return {std::istreambuf_iterator<char>(output), {}};
}

}  // namespace qel::test
