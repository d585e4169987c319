// The agent's life, seen through the device: start, stop, takeover, and the ends of everything around it.
#include <sys/mount.h>
#include <sys/stat.h>

#include "session/session_test.h"

namespace qel::test {
namespace {

using host::FaultAction;

constexpr std::uint32_t kForEver = 1'000'000'000;

// Also at a host that asks for everything again: what it was told arrives all the same, its last words at the stop too.
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

// Neither the log nor the gate becomes descriptor 0, 1 or 2.
TEST(LifecycleTest, ClosedStandardDescriptorsStandForNothing) {
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

// The agent ends by itself, without any signal; in the end by a host that wants the farewell again and again. It does
// not get as far as a worker when the X libraries cannot be loaded.
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

TEST(LifecycleTest, TheXServersEndIsTheAgentsOrderlyEnd) {
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

// One that waits for the console, which another agent has and does not give back, notices it too.
TEST(LifecycleTest, TheXServersEndIsTheEndOfAnAgentThatWaits) {
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

// Once the signals are caught one ends the process with status 0; one that comes before the service control exists may
// leave it running, and the next one ends it.
TEST(LifecycleTest, AStopSignalAtAnyMomentEndsTheAgent) {
  Session session;
  for (int delay_ms = 0; delay_ms < 600; delay_ms += 25) {
    SCOPED_TRACE(delay_ms);
    ClearLog();
    Agent& agent = session.StartAgent();
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));  // the moment is what is tried here
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

TEST(LifecycleTest, AStormOfSignalsNeitherDeadlocksNorKills) {
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

// It does not make the start deaf to a stop signal, which ends the waiting for the answer and, as it came before the
// service, nothing else; and it is left at the stop.
TEST(LifecycleTest, AHostThatWantsAMessageAgainForEverIsLeft) {
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

// A negative answer to the probe puts the service messages inline, which the host judges; a rejection ends the agent.
// Messages that are refused later are logged, and the host is served on.
TEST(LifecycleTest, AHostThatRefusesDecidesWhatFollows) {
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

TEST(LifecycleTest, TheWindowManagersEndChangesNothing) {
  Session session;
  const Window window = session.Open({.title = "orphan"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("orphan"));
  session.RestartWindowManager();
  session.Settle();
  session.Client().Close(window);
  EXPECT_TRUE(session.NoLongerSees("orphan"));
}

// The agent's log when its file is not as it should be. The agent looks at its file once a second.
class LostLogTest : public testing::Test {
 protected:
  // Gives this user another home, by a user list of its own; the mount is this test program's.
  LostLogTest() {
    const fs::path users =
        files_.Write("passwd", "me:x:" + std::to_string(geteuid()) + ":" + std::to_string(getegid()) +
                                   "::" + files_.Path().string() + ":\n");
    EXPECT_EQ(mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
  }
  ~LostLogTest() override { umount2("/etc/passwd", MNT_DETACH); }

  // What stands in the log in the home.
  std::string HomeLog() const {
    std::ifstream file(fallback_ / "corvessan.log");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  Session session_;
  TempDir files_;
  fs::path fallback_ = files_.Path() / ".corvessan";
};

TEST_F(LostLogTest, ARenamedFileIsMadeAnewAndFollowed) {
  const mode_t earlier = umask(077);  // takes every right from others
  const Agent& agent = session_.StartServingAgent();
  umask(earlier);
  for (const bool is_replaced : {false, true}) {
    fs::rename(kLogFile, "/var/log/old");
    if (is_replaced) {
      std::ofstream(kLogFile) << "";
    }
    EXPECT_TRUE(WaitUntil([&] { return session_.Settle(), !LogLines().empty(); }, kSoon));
    EXPECT_EQ(fs::status(kLogFile).permissions(), fs::perms{0666}) << "the agents of all users write into it";
  }
  const auto is_log = [](const fs::path& descriptor) {
    return fs::is_symlink(descriptor) && fs::read_symlink(descriptor).string().starts_with("/var/log/");
  };
  const fs::directory_iterator descriptors("/proc/" + std::to_string(agent.Pid()) + "/fd");
  EXPECT_EQ(std::ranges::count_if(descriptors, is_log), 1);
  session_.StopAgent();
  EXPECT_TRUE(LogContains("closed"));
}

// The log file is a FIFO without a reader; the agent does not wait for one.
TEST_F(LostLogTest, AFileThatCannotBeWrittenIsLeftForTheHomeOnce) {
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StartServingAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(fs::status(fallback_).permissions(), fs::perms{0755});
  EXPECT_EQ(fs::status(fallback_ / "corvessan.log").permissions(), fs::perms{0666});
  const std::string log = HomeLog();
  EXPECT_NE(log.substr(0, log.find('\n')).find("/ Start Corvessan tandrel tool."), std::string::npos) << log;

  fs::remove_all(fallback_);
  std::this_thread::sleep_for(1100ms);  // the next line comes with a look at the file
  session_.Settle();
  session_.StopAgent();
  EXPECT_FALSE(fs::exists(fallback_)) << "the switch is not made twice";
  EXPECT_FALSE(fs::exists(kLogFile)) << "there is no way back";
}

// What finds a user's home may hold a lock of the C library at that moment.
TEST_F(LostLogTest, NoSignalHandlerLooksForTheHome) {
  session_.StartServingAgent();
  std::size_t lines = 0;
  do {
    lines = LogLines().size();
    std::this_thread::sleep_for(1100ms);  // the next line, that of the handler, comes with a look at the file
  } while (LogLines().size() != lines);
  fs::remove(kLogFile);
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StopAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(HomeLog().find("stopping service"), std::string::npos) << HomeLog();
}

}  // namespace
}  // namespace qel::test
