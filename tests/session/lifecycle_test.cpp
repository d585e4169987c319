// Start and stop of the agent, and the end of the X server, the window manager and other agents.
#include <sys/mount.h>
#include <sys/stat.h>

#include "session/session_test.h"

namespace qel::test {
namespace {

using host::FaultAction;

constexpr std::uint32_t kForEver = 1'000'000'000;

// All messages arrive, including the last ones at the stop, also if the host requests every message three more times.
TEST(LifecycleTest, RegistersServesAndUnregisters) {
  for (const std::uint32_t again : {0U, 3U}) {
    Session session;
    session.Open({.title = "there"});
    for (const MessageKind kind : {MessageKind::kRegister, MessageKind::kAddRun, MessageKind::kToolState}) {
      session.Host().faults().Add({.action = FaultAction::kResubmit, .times = again, .kind = kind});
    }
    session.StartServingAgent();
    const auto services = session.Host().model().Snapshot().services;
    ASSERT_EQ(services.size(), 1u);
    const host::RegisterService& service = services.begin()->second;
    EXPECT_EQ(service.name, "corvessan.Tandrel.guest.lin");
    EXPECT_EQ(service.title, "Corvessan Tandrel Tool");
    EXPECT_TRUE(service.version && service.version->flags_a == 1 && service.version->flags_b == 0);
    EXPECT_FALSE(service.session.has_value());
    for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kUnregister}) {
      session.Host().faults().Add({.action = FaultAction::kResubmit, .times = again, .kind = kind});
    }
    session.StopAgent();
    std::vector<MessageKind> order;
    for (const host::Event& event : session.Host().model().Snapshot().events) {
      if (event.outcome == host::Outcome::kTaken) {
        order.push_back(host::KindOf(event.notification));
      }
    }
    std::erase(order, MessageKind::kFetch);
    EXPECT_EQ(order, (std::vector{MessageKind::kProbe, MessageKind::kRegister, MessageKind::kToolState,
                                  MessageKind::kAppMenu, MessageKind::kAddRun, MessageKind::kFinishEnum,
                                  MessageKind::kToolState, MessageKind::kUnregister}));
    EXPECT_EQ(session.ToolActive(), false);
    EXPECT_EQ(ConsoleOwners(), 0);
    for (const char* line : {"starting . . .", "Open Tools Gate link was opened.", "Opened /proc/driver/qel_tg",
                             "initialized", "Closing . . .", "Tools Service: stopping service...", "deinitialized",
                             "Closed /proc/driver/qel_tg", "Open Tools Gate link was closed.", "closed"}) {
      EXPECT_EQ(LogCount(line), 1) << line;
    }
  }
}

// The log file and the device must not become descriptor 0, 1 or 2.
TEST(LifecycleTest, ClosedStandardDescriptorsAreReplaced) {
  Session session;
  Agent agent(session.Server().Display(), {"-r", "100"}, {},
              {"/bin/sh", "-c", "exec \"$@\" <&- >&- 2>&-", "without descriptors"});
  ASSERT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 1));
  for (const char* descriptor : {"0", "1", "2"}) {
    const auto link = fs::path("/proc") / std::to_string(agent.Pid()) / "fd" / descriptor;
    EXPECT_EQ(fs::read_symlink(link), "/dev/null") << descriptor;
  }
  agent.Stop();
}

// The agent ends without a signal, also if the host keeps requesting the last message again. In the last case the X
// libraries cannot be loaded, so that no worker starts.
TEST(LifecycleTest, WithoutADisplayTheAgentUnregistersAndEnds) {
  Session session("");
  const TempDir libraries;
  for (const char* suffix : {"", ".1", ".1.0.0", ".2"}) {
    libraries.Write(std::string("libXrandr.so") + suffix, "");
  }
  const std::tuple<std::uint32_t, EnvironmentChanges, const char*> rows[] = {
      {0, {}, "can't open connection to XServer!"},
      {kForEver, {}, "can't open connection to XServer!"},
      {kForEver, {{"LD_LIBRARY_PATH", libraries.Path()}}, "can't deinitialize service (non initialized)"}};
  for (const auto& [again, environment, error] : rows) {
    ClearLog();
    session.Host().faults().Add({.action = FaultAction::kResubmit, .times = again, .kind = MessageKind::kUnregister});
    Agent(":999999", {}, environment).ExpectOrderlyEnd();
    EXPECT_TRUE(LogContains("Error: Tools Service: " + std::string(error)));
    EXPECT_TRUE(LogContains("closed"));
    EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  }
  EXPECT_EQ(session.Count(MessageKind::kRegister), std::size(rows));
}

TEST(LifecycleTest, EndsNormallyWhenTheXServerDies) {
  enum class When { kIdle, kBusy, kStopping };
  for (const When when : {When::kIdle, When::kBusy, When::kStopping, When::kStopping, When::kStopping}) {
    Session session;
    Agent& agent = session.StartServingAgent();
    if (when == When::kBusy) {
      session.Client().OpenMany(std::vector<WindowTraits>(50, {.pid = session.NewProcess().Pid()}));
    } else if (when == When::kStopping) {
      agent.Kill(SIGTERM);
    }
    session.KillServer();
    agent.ExpectOrderlyEnd();
    if (when != When::kStopping) {
      EXPECT_EQ(LogCount("Tools Service: XIOError received"), 1);
      EXPECT_EQ(LogCount("Tools Service: Will exit X worker thread now"), 1);
    }
    EXPECT_EQ(LogCount("deinitialized"), 1);
    EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  }
}

// The agent also ends while it waits for the console. The other agent owns the console and cannot release it.
TEST(LifecycleTest, EndsWhenTheXServerDiesWhileWaitingForTheConsole) {
  Session session;
  Agent& owner = session.StartServingAgent();
  Agent waiting(session.Server().Display(), {"-r", "100"});
  ASSERT_TRUE(WaitForLog("Tools Service: waiting for graphical console ownership (" + std::to_string(getuid()) + ":'" +
                             session.Server().Display() + "'). . .",
                         2));
  owner.Kill(SIGSTOP);
  session.KillServer();
  waiting.ExpectOrderlyEnd();
  EXPECT_EQ(session.Count(MessageKind::kToolState, waiting.Pid()), 0u);
  owner.Kill(SIGCONT);
  owner.ExpectOrderlyEnd();
}

// After the agent has installed its handlers, a stop signal ends it with status 0. A signal before the service control
// exists may have no effect, but then the next signal ends the agent.
TEST(LifecycleTest, AStopSignalAtAnyMomentEndsTheAgent) {
  Session session;
  for (int delay_ms = 0; delay_ms < 600; delay_ms += 25) {
    SCOPED_TRACE(delay_ms);
    ClearLog();
    Agent& agent = session.StartAgent();
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));  // the test tries different moments
    const bool is_caught = LogContains("Opened /proc/driver/qel_tg");
    const bool is_heard =
        LogContains("Tools Service: initialized X11 service on display '" + session.Server().Display() + "'");
    agent.Kill(SIGTERM);
    if (!is_heard) {
      WaitUntil([&] { return agent.Wait(0ms) || session.Count(MessageKind::kFinishEnum, agent.Pid()) > 0; }, kSoon);
      agent.Kill(SIGTERM);
    }
    const auto status = agent.Wait(kStopTime);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exit_code == 0 || (status->signal == SIGTERM && !is_caught));
  }
}

TEST(LifecycleTest, ManySignalsCauseNoDeadlockAndNoCrash) {
  Session session;
  Agent& agent = session.StartServingAgent();
  for (int i = 0; i < 2000; ++i) {
    for (const int signal_number : {SIGTERM, SIGHUP, SIGINT, SIGCHLD}) {
      agent.Kill(signal_number);
    }
  }
  agent.ExpectOrderlyEnd();
  EXPECT_GT(LogCount("Warning: Tools Service: service already stopping..."), 0);
}

// The host requests a message again for ever. A stop signal during the registration ends only the wait, because the
// service does not exist yet. Later the stop ends the agent.
TEST(LifecycleTest, StopsDuringEndlessResubmission) {
  Session session;
  session.Host().faults().Add({.action = FaultAction::kResubmit, .times = kForEver, .kind = MessageKind::kRegister});
  Agent& agent = session.StartAgent();
  ASSERT_TRUE(WaitForLog("Open Tools Gate link was opened."));
  agent.Kill(SIGTERM);
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 1));
  session.Host().faults().Add({.action = FaultAction::kResubmit, .times = kForEver});
  session.StopAgent();
  EXPECT_TRUE(LogContains("Error: GuestCmdToolState() failed"));
}

// After a negative answer to the probe, service messages must be inline; the host checks this. After a rejected probe,
// the agent ends. If the host refuses later messages, the agent logs this and continues.
TEST(LifecycleTest, HandlesRefusalsOfTheHost) {
  Session session;
  session.Host().faults().SetProbeResult(-1);
  session.Host().faults().Add({.action = FaultAction::kReject, .kind = MessageKind::kAddRun});
  session.Host().faults().Add({.action = FaultAction::kFail, .kind = MessageKind::kAppMenu});
  session.Open({.title = "rejected"});
  session.StartServingAgent();
  EXPECT_TRUE(LogContains("Error: Failed to tell host command 'AddRun'"));
  EXPECT_TRUE(LogContains("Error: Failed to send AppMenu to host"));
  session.Settle();
  session.StopAgent();
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  session.Host().faults().Add({.action = FaultAction::kReject, .kind = MessageKind::kProbe});
  session.StartAgent().ExpectOrderlyEnd();
  EXPECT_EQ(session.Count(MessageKind::kRegister), 1u);
}

TEST(LifecycleTest, WorksAfterARestartOfTheWindowManager) {
  Session session;
  const Window window = session.Open({.title = "orphan"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("orphan"));
  session.RestartWindowManager();
  session.Settle();
  session.Client().Close(window);
  EXPECT_TRUE(session.NoLongerSees("orphan"));
}

// The log file is renamed, replaced or not writable. The agent checks the file once per second.
class LostLogTest : public testing::Test {
 protected:
  // Mounts another /etc/passwd, so that the user gets a new home directory. Only this test program sees the mount.
  LostLogTest() {
    const fs::path users =
        files_.Write("passwd", "me:x:" + std::to_string(geteuid()) + ":" + std::to_string(getegid()) +
                                   "::" + files_.Path().string() + ":\n");
    EXPECT_EQ(mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
  }
  ~LostLogTest() override { umount2("/etc/passwd", MNT_DETACH); }

  // The content of the log file in the home directory.
  std::string HomeLog() const {
    std::ifstream file(fallback_ / "corvessan.log");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  Session session_;
  TempDir files_;
  fs::path fallback_ = files_.Path() / ".corvessan";
};

TEST_F(LostLogTest, AfterARenameANewFileIsUsed) {
  const mode_t earlier = umask(077);  // other users would get no permissions
  const Agent& agent = session_.StartServingAgent();
  umask(earlier);
  for (const bool is_replaced : {false, true}) {
    fs::rename(kLogFile, "/var/log/old");
    if (is_replaced) {
      std::ofstream(kLogFile) << "";
    }
    EXPECT_TRUE(WaitUntil([&] { return session_.Settle(), !LogLines().empty(); }, kSoon));
    EXPECT_EQ(fs::status(kLogFile).permissions(), fs::perms{0666}) << "the agents of all users write to the file";
  }
  const auto is_log = [](const fs::path& descriptor) {
    return fs::is_symlink(descriptor) && fs::read_symlink(descriptor).string().starts_with("/var/log/");
  };
  const fs::directory_iterator descriptors("/proc/" + std::to_string(agent.Pid()) + "/fd");
  EXPECT_EQ(std::ranges::count_if(descriptors, is_log), 1);
  session_.StopAgent();
  EXPECT_TRUE(LogContains("closed"));
}

// The log file is a FIFO without a reader. The agent must not wait for one.
TEST_F(LostLogTest, TheLogMovesToTheHomeDirectoryOnlyOnce) {
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StartServingAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(fs::status(fallback_).permissions(), fs::perms{0755});
  EXPECT_EQ(fs::status(fallback_ / "corvessan.log").permissions(), fs::perms{0666});
  const std::string log = HomeLog();
  EXPECT_NE(log.substr(0, log.find('\n')).find("/ Start Corvessan tandrel tool."), std::string::npos) << log;

  fs::remove_all(fallback_);
  std::this_thread::sleep_for(1100ms);  // before the next line, the agent checks the file
  session_.Settle();
  session_.StopAgent();
  EXPECT_FALSE(fs::exists(fallback_)) << "the log must not move a second time";
  EXPECT_FALSE(fs::exists(kLogFile)) << "the log must not move back";
}

// A handler may interrupt the C library while it holds the lock that the search for the home directory needs.
TEST_F(LostLogTest, SignalHandlersDoNotSearchForTheHomeDirectory) {
  session_.StartServingAgent();
  std::size_t lines = 0;
  do {
    lines = LogLines().size();
    std::this_thread::sleep_for(1100ms);  // before the next line, which the handler writes, the agent checks the file
  } while (LogLines().size() != lines);
  fs::remove(kLogFile);
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StopAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(HomeLog().find("stopping service"), std::string::npos) << HomeLog();
}

}  // namespace
}  // namespace qel::test
