// Message buses that take every connection and never answer on it.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "session/session.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The kernel completes the connections of a listening socket; nobody reads what is written to them.
class SilentBus {
 public:
  SilentBus() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    Path().copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(socket_, 100) != 0) {
      throw std::runtime_error("no socket");
    }
  }
  ~SilentBus() { close(socket_); }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;
  EnvironmentChanges Environment() const {
    EnvironmentChanges changes{{"GSETTINGS_BACKEND", "dconf"}};
    for (const char* const bus : {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {
      changes.emplace_back(bus, "unix:path=" + Path());
    }
    for (const char* const sign :
         {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID"}) {
      changes.emplace_back(sign, std::nullopt);
    }
    return changes;
  }

 private:
  std::string Path() const { return dir_.Path() / "bus"; }

  TempDir dir_;
  int socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST(SilentBusTest, IsDoneWithout) {
  const SilentBus bus;
  Session session;
  session.Open({.title = "of a class", .window_class = std::string("nobody\0Nobody", 14)});  // asks the matcher, too
  const auto start = Clock::now();
  session.StartServingAgent({"-r", "100"}, bus.Environment());
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(8));
  EXPECT_TRUE(session.Sees("of a class"));
  EXPECT_TRUE(LogContains("Warning: the system bus takes too long to answer and is not asked any more"));
  session.Open({.title = "later", .window_class = std::string("nobody\0Nobody", 14)});
  EXPECT_TRUE(session.Sees("later"));
  session.StopAgent();
  session.ExpectNoViolations();
}

// A stop while the agent waits for the system bus, and for the matcher.
TEST(SilentBusTest, HoldsNoStopUp) {
  const SilentBus bus;
  Session session;
  session.Open({.title = "of a class", .window_class = std::string("nobody\0Nobody", 14)});
  for (const int delay_ms : {1000, 3000}) {
    SCOPED_TRACE(delay_ms);
    Agent& agent = session.StartAgent({"-r", "100"}, bus.Environment());
    std::this_thread::sleep_for(milliseconds(delay_ms));
    agent.Signal(SIGTERM);
    agent.ExpectOrderlyEnd(std::chrono::seconds(4));
  }
}

}  // namespace
}  // namespace qel::test
