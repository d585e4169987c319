// The agent's life, seen through the device: start, stop, takeover, and the ends of everything around it.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "session/session.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using host::MessageKind;

TEST(LifecycleTest, RegistersServesAndUnregisters) {
  Session session;
  session.StartServingAgent();
  host::ModelState state = session.Host().model().Snapshot();
  ASSERT_EQ(state.services.size(), 1u);
  const host::RegisterService& service = state.services.begin()->second;
  EXPECT_EQ(service.name, "corvessan.Tandrel.guest.lin");
  EXPECT_EQ(service.title, "Corvessan Tandrel Tool");
  EXPECT_EQ(service.layout, host::ServiceLayout::kBuffers);
  ASSERT_TRUE(service.version.has_value());
  EXPECT_EQ(service.version->flags_a, 1u);
  EXPECT_EQ(service.version->flags_b, 0u);
  EXPECT_FALSE(service.session.has_value());
  EXPECT_EQ(state.Count(MessageKind::kProbe), 1u);

  session.StopAgent();
  state = session.Host().model().Snapshot();
  std::vector<MessageKind> order;
  for (const host::Event& event : state.events) {
    const MessageKind kind = host::KindOf(event.notification);
    if (kind != MessageKind::kFetch) {
      order.push_back(kind);
    }
  }
  EXPECT_EQ(order, (std::vector<MessageKind>{MessageKind::kProbe, MessageKind::kRegister, MessageKind::kToolState,
                                             MessageKind::kAppMenu, MessageKind::kFinishEnum, MessageKind::kToolState,
                                             MessageKind::kUnregister}));
  EXPECT_EQ(state.tool_active, false);
  for (const char* line : {"starting . . .", "Open Tools Gate link was opened.", "Opened /proc/driver/qel_tg",
                           "initialized", "Closing . . .", "Tools Service: stopping service...", "deinitialized",
                           "Closed /proc/driver/qel_tg", "Open Tools Gate link was closed.", "closed"}) {
    EXPECT_EQ(LogCount(line), 1) << line;
  }
  session.ExpectNoViolations();
}

TEST(LifecycleTest, WithoutADeviceTheAgentSaysSoAndEnds) {
  XServer server;
  Agent agent(server.Display(), {});
  agent.ExpectOrderlyEnd();
  EXPECT_TRUE(LogContains("Error: Could not open link to Open Tools Gate: -5"));
  EXPECT_TRUE(LogContains("Error: Tools Service: can't deinitialize service (non initialized)"));
  EXPECT_TRUE(LogContains("closed"));
}

// Neither the log nor the gate becomes descriptor 0, 1 or 2.
TEST(LifecycleTest, ClosedStandardDescriptorsStandForNothing) {
  Session session("");
  session.Client().SetClientList({});
  const ChildProcess agent({.arguments = {"/bin/sh", "-c", "exec \"$0\" -r 100 <&- >&- 2>&-", QEL_AGENT},
                            .environment = {{"DISPLAY", session.Server().Display()},
                                            {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                                            {"GSETTINGS_BACKEND", "memory"}}});
  ASSERT_TRUE(session.WaitForCount(MessageKind::kFetch, 1));
  for (const char* descriptor : {"0", "1", "2"}) {
    const auto link = std::filesystem::path("/proc") / std::to_string(agent.Pid()) / "fd" / descriptor;
    EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null") << descriptor;
  }
}

TEST(LifecycleTest, WithoutADisplayTheAgentUnregistersAndEnds) {
  Session session("");
  Agent agent(":999999", {});
  agent.ExpectOrderlyEnd();
  EXPECT_TRUE(LogContains("Error: Tools Service: can't open connection to XServer!"));
  EXPECT_EQ(session.Count(MessageKind::kRegister), 1u);
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  session.ExpectNoViolations();
}

TEST(LifecycleTest, TheSecondAgentTakesOverWhenTheFirstEnds) {
  for (const int end : {SIGTERM, SIGKILL}) {
    Session session;
    session.Open({.title = "shared"});
    Agent& first = session.StartServingAgent();
    Agent second(session.Server().Display(), {"-r", "100"});
    ASSERT_TRUE(WaitUntil([] {
      const auto lines = LogLines();
      return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
               return line.find("waiting for graphical console ownership") != std::string::npos;
             }) == 2;
    }));
    EXPECT_EQ(session.Count(MessageKind::kAddRun), 1u);
    first.Signal(end);
    first.Wait(kStopTime);
    const auto ended = std::chrono::steady_clock::now();
    EXPECT_TRUE(session.WaitForCount(MessageKind::kAddRun, 2));
    // It looks once a second; the rest is the start of the service.
    EXPECT_LT(std::chrono::steady_clock::now() - ended, std::chrono::milliseconds(2500));
    second.Signal(SIGTERM);
    second.ExpectOrderlyEnd();
    session.ExpectNoViolations();
  }
}

TEST(LifecycleTest, TheXServersEndIsTheAgentsOrderlyEnd) {
  enum class When { kIdle, kBusy, kStopping };
  for (const When when : {When::kIdle, When::kBusy, When::kStopping, When::kStopping, When::kStopping}) {
    Session session;
    Agent& agent = session.StartServingAgent();
    if (when == When::kBusy) {
      IdleProcess& process = session.NewProcess();
      for (int i = 0; i < 50; ++i) {
        session.Client().Open({.pid = process.Pid(), .title = "busy"});
      }
    }
    if (when == When::kStopping) {
      agent.Signal(SIGTERM);
    }
    session.KillServer();
    agent.ExpectOrderlyEnd();
    if (when != When::kStopping) {
      EXPECT_EQ(LogCount("Tools Service: XIOError received"), 1);
      EXPECT_EQ(LogCount("Tools Service: Will exit X worker thread now"), 1);
    }
    EXPECT_EQ(LogCount("deinitialized"), 1);
    EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
    session.ExpectNoViolations();
  }
}

// Whenever it comes after the options are read, a stop signal ends the process with status 0; one that comes before the
// service control exists leaves it running, and the next one ends it.
TEST(LifecycleTest, AStopSignalAtAnyMomentEndsTheAgent) {
  Session session;
  for (int delay_ms = 0; delay_ms < 600; delay_ms += 25) {
    Agent& agent = session.StartAgent();
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));  // the moment is what is tried here
    agent.Signal(SIGTERM);
    std::optional<ChildStatus> status = agent.Wait(kStopTime);
    if (!status) {
      ASSERT_LT(delay_ms, 400) << "a signal was lost";
      agent.Signal(SIGTERM);
      status = agent.Wait(kStopTime);
    }
    ASSERT_TRUE(status.has_value()) << "at " << delay_ms << " ms";
    EXPECT_TRUE(status->exit_code == 0 || (status->signal == SIGTERM && delay_ms < 400)) << "at " << delay_ms << " ms";
  }
  session.ExpectNoViolations();
}

TEST(LifecycleTest, AStormOfSignalsNeitherDeadlocksNorKills) {
  Session session;
  Agent& agent = session.StartServingAgent();
  for (int i = 0; i < 2000; ++i) {
    for (const int signal_number : {SIGTERM, SIGHUP, SIGINT, SIGCHLD}) {
      agent.Signal(signal_number);
    }
  }
  agent.ExpectOrderlyEnd();
  EXPECT_GT(LogCount("Warning: Tools Service: service already stopping..."), 0);
  session.ExpectNoViolations();
}

// The host asks for everything again and again: what it was told arrives all the same, its last words at the stop too.
TEST(LifecycleTest, AHostThatWantsEverythingTwiceLosesNothing) {
  Session session;
  session.Host().faults().Add({.action = host::FaultAction::kResubmit, .times = 40});
  session.Open({.title = "persistent"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("persistent"));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 1u);
  for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kUnregister}) {
    session.Host().faults().Add({.action = host::FaultAction::kResubmit, .times = 3, .kind = kind});
  }
  session.StopAgent();
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  session.Host().model().Read([](const host::ModelState& state) { EXPECT_EQ(state.tool_active, false); });
  session.ExpectNoViolations();
}

constexpr host::Fault kAgainForEver{.action = host::FaultAction::kResubmit, .times = 100'000'000};

TEST(LifecycleTest, AHostThatWantsEverythingAgainForEverIsLeftAtTheStop) {
  Session session;
  session.StartServingAgent();
  session.Host().faults().Add(kAgainForEver);
  session.StopAgent();
  EXPECT_TRUE(LogContains("Error: GuestCmdToolState() failed"));
}

// The agent ends by itself, without any signal.
TEST(LifecycleTest, AHostThatWantsTheFarewellAgainForEverIsLeft) {
  Session session("");
  host::Fault fault = kAgainForEver;
  fault.kind = MessageKind::kUnregister;
  session.Host().faults().Add(fault);
  Agent agent(":999999", {});
  agent.ExpectOrderlyEnd();
  EXPECT_TRUE(LogContains("closed"));
}

// A stop signal before the service exists ends nothing but the waiting for the host's answer; the next one ends the
// agent.
TEST(LifecycleTest, AHostThatWantsTheRegistrationAgainForEverDoesNotMakeTheStartDeaf) {
  Session session;
  host::Fault fault = kAgainForEver;
  fault.kind = MessageKind::kRegister;
  session.Host().faults().Add(fault);
  Agent& agent = session.StartAgent();
  ASSERT_TRUE(WaitUntil([] { return LogContains("Open Tools Gate link was opened."); }));
  agent.Signal(SIGTERM);
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 1));
  session.StopAgent();
}

TEST(LifecycleTest, AHostThatRefusesIsLoggedAndServedOn) {
  Session session;
  session.Host().faults().Add({.action = host::FaultAction::kReject, .times = 1, .kind = MessageKind::kAddRun});
  session.Host().faults().Add({.action = host::FaultAction::kFail, .times = 1, .kind = MessageKind::kAppMenu});
  session.Open({.title = "rejected"});
  session.StartServingAgent();
  EXPECT_TRUE(LogContains("Error: Failed to tell host command 'AddRun'"));
  EXPECT_TRUE(LogContains("Error: Failed to send AppMenu to host"));
  session.Open({.title = "taken"});
  EXPECT_TRUE(session.Sees("taken"));
  session.StopAgent();
}

TEST(LifecycleTest, ANegativeProbeResultMovesMessagesInline) {
  Session session;
  session.Host().faults().SetProbeResult(-1);
  session.StartServingAgent();
  session.StopAgent();
  bool unregistered = false;
  session.Host().model().Read([&](const host::ModelState& state) {
    for (const host::Event& event : state.events) {
      if (const auto* message = std::get_if<host::RegisterService>(&event.notification)) {
        EXPECT_EQ(message->layout, host::ServiceLayout::kInline);
      } else if (const auto* farewell = std::get_if<host::UnregisterService>(&event.notification)) {
        EXPECT_EQ(farewell->layout, host::ServiceLayout::kInline);
        unregistered = true;
      }
    }
  });
  EXPECT_TRUE(unregistered);
  session.ExpectNoViolations();
}

TEST(LifecycleTest, ADeviceThatRejectsTheProbeIsNotUsed) {
  Session session;
  session.Host().faults().Add({.action = host::FaultAction::kReject, .times = 1, .kind = MessageKind::kProbe});
  Agent& agent = session.StartAgent();
  agent.ExpectOrderlyEnd();
  EXPECT_EQ(session.Count(MessageKind::kRegister), 0u);
}

TEST(LifecycleTest, TheWindowManagersEndChangesNothing) {
  Session session;
  const Window window = session.Open({.title = "orphan"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("orphan"));
  session.RestartWindowManager();
  session.Open({.title = "after the restart"});
  EXPECT_TRUE(session.Sees("after the restart"));
  session.Client().Close(window);
  EXPECT_TRUE(session.NoLongerSees("orphan"));
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
