// The agent stops in time, no matter what it waits for.

#include <sys/socket.h>
#include <sys/un.h>

#include "session/session_test.h"

namespace qel::test {
namespace {

void ExpectStop(Session& session, Agent& agent) {
  const bool was_serving = session.ToolActive().value_or(false);
  agent.Stop();
  EXPECT_EQ(session.Count(MessageKind::kUnregister, agent.Pid()), 1u);
  EXPECT_EQ(LogCount("closed"), 1);
  EXPECT_EQ(LogCount("deinitialized"), was_serving ? 1 : 0);
  EXPECT_FALSE(session.ToolActive().value_or(false));
  EXPECT_EQ(ConsoleOwners(), 0);
}

// Waits until the agent has started far enough for a stop signal to end it.
bool WaitForControl(Session& session) {
  return WaitForLog("Tools Service: initialized X11 service on display '" + session.Server().Display() + "'");
}

TEST(StopTest, WhileTheXServerDoesNotAnswer) {
  enum class Agents { kConnecting, kIdle, kBusy };
  Session session;
  const std::uint32_t window = session.Id(session.Open({.title = "a window"}));
  for (const Agents state : {Agents::kConnecting, Agents::kIdle, Agents::kBusy}) {
    SCOPED_TRACE(static_cast<int>(state));
    ClearLog();
    Agent* agent = state == Agents::kConnecting ? nullptr : &session.StartServingAgent();
    kill(session.Server().Pid(), SIGSTOP);
    if (state == Agents::kConnecting) {
      agent = &session.StartAgent();
      EXPECT_TRUE(WaitForControl(session));
    } else if (state == Agents::kBusy) {  // the agent waits for a reply of the server
      session.Host().Send(host::ActivateWindowCommand(window));
      EXPECT_TRUE(WaitUntil([&] { return session.Host().CommandsWaiting() == 0; }, kSoon));
    }
    std::this_thread::sleep_for(500ms);  // five periods
    ExpectStop(session, *agent);
    kill(session.Server().Pid(), SIGCONT);
  }
}

TEST(StopTest, WhileSomebodyGrabsTheXServer) {
  Session session;
  session.Open({.title = "a window"});
  Agent& agent = session.StartServingAgent();
  XClient grabber(session.Server().Display());
  const Window window = grabber.Open({.title = "grabs"});
  grabber.GrabServer();
  grabber.SetTitle(window, "to be read");
  std::this_thread::sleep_for(300ms);  // three periods
  ExpectStop(session, agent);
}

TEST(StopTest, WhileTheWindowsAreReportedOneByOne) {
  constexpr std::uint64_t kWindows = 300;
  Session session("");
  for (const Window window :
       session.Client().OpenMany(std::vector<WindowTraits>(kWindows, {.pid = session.NewProcess().Pid()}))) {
    session.List(window);
  }
  session.Host().faults().SetDelay(300ms, MessageKind::kAddRun);
  Agent& agent = session.StartAgent({"-r", "500"});
  ASSERT_TRUE(session.WaitForCount(MessageKind::kAddRun, 3));
  ExpectStop(session, agent);
  EXPECT_LT(session.Count(MessageKind::kAddRun), kWindows);
}

TEST(StopTest, WhileACommandNamesOneProcessAMillionTimes) {
  Session session;
  IdleProcess& process = session.NewProcess();
  const Window window = session.Open({.pid = process.Pid(), .title = "to be hidden"});
  Agent& agent = session.StartServingAgent();
  const std::vector<std::uint32_t> pids(1'000'000, static_cast<std::uint32_t>(process.Pid()));
  session.Host().Send(host::HideCommand(pids, {}, 1, 2));
  ASSERT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, 1));
  EXPECT_EQ(session.Host().model().Snapshot().last_hidden->windows, std::vector{session.Id(window)});
  std::this_thread::sleep_for(200ms);  // two periods
  ExpectStop(session, agent);
}

// Message buses accept connections but never answer. A stop comes while the agent waits for the system bus, then while
// it waits for the matcher. Without a stop, the agent works without them.
TEST(StopTest, WhileNoBusAnswers) {
  const TempDir directory;
  const std::string path = directory.Path() / "bus";
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  // The kernel completes connections to a listening socket. Nobody reads from them.
  const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(bus, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(bus, 100), 0);
  const EnvironmentChanges environment = {{"GSETTINGS_BACKEND", "dconf"},
                                          {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + path},
                                          {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + path},
                                          {"XDG_CURRENT_DESKTOP", std::nullopt},
                                          {"DESKTOP_SESSION", std::nullopt},
                                          {"KDE_FULL_SESSION", std::nullopt},
                                          {"GNOME_DESKTOP_SESSION_ID", std::nullopt}};
  Session session;
  const std::string unknown_class("nobody\0Nobody\0", 14);  // makes the agent ask the matcher
  session.Open({.title = "early", .window_class = unknown_class});
  for (const int delay_ms : {1000, 3000}) {
    SCOPED_TRACE(delay_ms);
    ClearLog();
    Agent& agent = session.StartAgent({"-r", "100"}, environment);
    ASSERT_TRUE(WaitForControl(session));
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));  // the test tries different moments
    agent.Stop();
  }
  ClearLog();
  session.StartServingAgent({"-r", "100"}, environment);
  EXPECT_TRUE(session.Sees("early"));
  session.Open({.title = "later", .window_class = unknown_class});
  EXPECT_TRUE(session.Sees("later"));
  for (const char* silent : {"the system bus", "bamf"}) {
    EXPECT_EQ(LogCount("Warning: " + std::string(silent) + " takes too long to answer and is not asked any more"), 1);
  }
  session.StopAgent();
  close(bus);
}

}  // namespace
}  // namespace qel::test
