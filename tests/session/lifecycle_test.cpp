// The agent's life, seen through the device: start, stop, takeover, and the ends of everything around it.
#include "session/session_test.h"

namespace qel::test {
namespace {

using host::FaultAction;

constexpr std::uint32_t kForEver = 1'000'000'000;

TEST(LifecycleTest, RegistersServesAndUnregisters) {
  Session session;
  session.StartServingAgent();
  host::ModelState state = session.Host().model().Snapshot();
  ASSERT_EQ(state.services.size(), 1u);
  const host::RegisterService& service = state.services.begin()->second;
  EXPECT_EQ(service.name, "corvessan.Tandrel.guest.lin");
  EXPECT_EQ(service.title, "Corvessan Tandrel Tool");
  ASSERT_TRUE(service.version.has_value());
  EXPECT_EQ(service.version->flags_a, 1u);
  EXPECT_EQ(service.version->flags_b, 0u);
  EXPECT_FALSE(service.session.has_value());

  session.StopAgent();
  state = session.Host().model().Snapshot();
  std::vector<MessageKind> order;
  for (const host::Event& event : state.events) {
    order.push_back(host::KindOf(event.notification));
  }
  std::erase(order, MessageKind::kFetch);
  EXPECT_EQ(order, (std::vector<MessageKind>{MessageKind::kProbe, MessageKind::kRegister, MessageKind::kToolState,
                                             MessageKind::kAppMenu, MessageKind::kFinishEnum, MessageKind::kToolState,
                                             MessageKind::kUnregister}));
  EXPECT_EQ(state.tool_active, false);
  EXPECT_EQ(ConsoleOwners(), 0);
  for (const char* line : {"starting . . .", "Open Tools Gate link was opened.", "Opened /proc/driver/qel_tg",
                           "initialized", "Closing . . .", "Tools Service: stopping service...", "deinitialized",
                           "Closed /proc/driver/qel_tg", "Open Tools Gate link was closed.", "closed"}) {
    EXPECT_EQ(LogCount(line), 1) << line;
  }
}

TEST(LifecycleTest, WithoutADeviceTheAgentSaysSoAndEnds) {
  XServer server;
  Agent(server.Display(), {}).ExpectOrderlyEnd();
  EXPECT_TRUE(LogContains("Error: Could not open link to Open Tools Gate: -5"));
  EXPECT_TRUE(LogContains("Error: Tools Service: can't deinitialize service (non initialized)"));
  EXPECT_TRUE(LogContains("closed"));
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

// The agent ends by itself, without any signal; in the end by a host that wants the farewell again and again.
TEST(LifecycleTest, WithoutADisplayTheAgentUnregistersAndEnds) {
  Session session("");
  for (const std::uint32_t again : {0U, kForEver}) {
    ClearLog();
    session.Host().faults().Add({.action = FaultAction::kResubmit, .times = again, .kind = MessageKind::kUnregister});
    Agent(":999999", {}).ExpectOrderlyEnd();
    EXPECT_TRUE(LogContains("Error: Tools Service: can't open connection to XServer!"));
    EXPECT_TRUE(LogContains("closed"));
    EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  }
  EXPECT_EQ(session.Count(MessageKind::kRegister), 2u);
}

TEST(LifecycleTest, TheSecondAgentTakesOverWhenTheFirstEnds) {
  for (const int end : {SIGTERM, SIGKILL}) {
    Session session;
    session.Open({.title = "shared"});
    Agent& first = session.StartServingAgent();
    Agent second(session.Server().Display(), {"-r", "100"});
    ASSERT_TRUE(WaitForLog("Tools Service: waiting for graphical console ownership (" + std::to_string(getuid()) +
                               ":'" + session.Server().Display() + "'). . .",
                           2));
    EXPECT_EQ(session.Count(MessageKind::kAddRun), 1u);
    first.Kill(end);
    first.Wait();
    EXPECT_TRUE(session.WaitForCount(MessageKind::kAddRun, 2));
    second.Stop();
  }
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
    const bool ends = is_heard || WaitUntil([&] {
                        return agent.Wait(0ms) || session.Count(MessageKind::kFinishEnum, agent.Pid()) > 0;
                      });
    ASSERT_TRUE(ends);
    if (!is_heard) {
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

// The host asks for everything again and again: what it was told arrives all the same, its last words at the stop too.
TEST(LifecycleTest, AHostThatWantsEverythingTwiceLosesNothing) {
  Session session;
  session.Host().faults().Add({.action = FaultAction::kResubmit, .times = 40});
  session.Open({.title = "persistent"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("persistent"));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 1u);
  for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kUnregister}) {
    session.Host().faults().Add({.action = FaultAction::kResubmit, .times = 3, .kind = kind});
  }
  session.StopAgent();
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  EXPECT_EQ(session.ToolActive(), false);
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

TEST(LifecycleTest, AHostThatRefusesIsLoggedAndServedOn) {
  Session session;
  session.Host().faults().Add({.action = FaultAction::kReject, .kind = MessageKind::kAddRun});
  session.Host().faults().Add({.action = FaultAction::kFail, .kind = MessageKind::kAppMenu});
  session.Open({.title = "rejected"});
  session.StartServingAgent();
  EXPECT_TRUE(LogContains("Error: Failed to tell host command 'AddRun'"));
  EXPECT_TRUE(LogContains("Error: Failed to send AppMenu to host"));
  session.Settle();
}

// A negative result puts the service messages inline, which the host judges; a rejection ends the agent.
TEST(LifecycleTest, TheProbesAnswerDecidesAboutTheDevice) {
  Session session;
  session.Host().faults().SetProbeResult(-1);
  session.StartServingAgent();
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

}  // namespace
}  // namespace qel::test
