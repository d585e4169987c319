// The graphical console lost and regained, as the X server's control extension tells it.

#include "control_extension/proxy.h"
#include "session/session_test.h"

namespace qel::test {
namespace {

// What an agent's worker thread told about the console: the texts before the parenthesis with user and display.
std::vector<std::string> ConsoleLines(pid_t agent) {
  const std::string mine = ":" + std::to_string(agent) + ":";
  const std::string prefix = "/ Tools Service: ";
  std::vector<std::string> texts;
  for (const std::string& line : LogLines()) {
    const std::size_t start = line.find(prefix);
    const std::size_t end = line.find(" (" + std::to_string(getuid()) + ":'");
    if (start != std::string::npos && end != std::string::npos && line.find(mine) < start) {
      texts.push_back(line.substr(start + prefix.size(), end - start - prefix.size()));
    }
  }
  return texts;
}

bool WaitForLine(const Agent& agent, const std::string& text, int count = 1) {
  return WaitUntil([&] { return std::ranges::count(ConsoleLines(agent.Pid()), text) >= count; }, kSoon);
}

class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() : proxy_(session_.Server().Display()) { session_.SetAgentDisplay(proxy_.Display()); }
  void TearDown() override { session_.StopAgent(); }

  void LoseConsole(const Agent& agent) {
    proxy_.State().console_active = false;
    ASSERT_TRUE(WaitForLine(agent, "suspended"));
  }

  Session session_;
  control_extension::Proxy proxy_;
};

TEST_F(ConsoleTest, LostAndRegained) {
  session_.Open({.title = "stays"});
  const Window closed = session_.Open({.title = "closed meanwhile"});
  Agent& agent = session_.StartServingAgent();
  session_.Settle();
  LoseConsole(agent);
  EXPECT_EQ(session_.ToolActive(), false);
  session_.Client().Close(closed);
  session_.Open({.title = "opened meanwhile"});
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 3u) << "nobody looks while the console is lost";

  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.Sees("opened meanwhile"));
  EXPECT_TRUE(session_.NoLongerSees("closed meanwhile"));
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 5u) << "each window once";
  EXPECT_EQ(session_.Count(MessageKind::kRmvRun), 1u);
  EXPECT_EQ(session_.Count(MessageKind::kAppMenu), 2u);
  EXPECT_EQ(session_.Count(MessageKind::kFinishEnum), 2u);
  session_.StopAgent();
  EXPECT_THAT(ConsoleLines(agent.Pid()),
              testing::ElementsAre("worker thread started", "waiting for graphical console ownership",
                                   "graphical console owned", "started", "graphical console released", "suspended",
                                   "waiting for graphical console ownership", "graphical console owned", "resumed",
                                   "graphical console released", "worker thread stopped"));
  EXPECT_EQ(session_.Count(MessageKind::kRegister), 1u);
  EXPECT_EQ(proxy_.State().claims, 0u) << "the session is claimed by other programs only";
}

// The host hears last that the tool is not ready, and gets everything when the console is back. The agent has fetched
// the reset and waits for the answer when the console goes; it gets it while the host is told that the tool is not
// ready, if it tells that too early.
TEST_F(ConsoleTest, AResetFetchedWhileTheConsoleIsLostAnnouncesNothing) {
  session_.Open({.title = "stays"});
  const Window closed = session_.Open({.title = "closed meanwhile"});
  host::Host& host = session_.Host();
  host.faults().SetDelay(3s, MessageKind::kFetch);
  Agent& agent = session_.StartServingAgent();
  host.faults().SetDelay(4s, MessageKind::kToolState);
  host.Send(host::ResetCommand());
  ASSERT_TRUE(WaitUntil([&] { return host.CommandsWaiting() == 0; }, kSoon));
  LoseConsole(agent);
  EXPECT_EQ(session_.Count(MessageKind::kToolState), 2u) << "ready, and not ready";
  EXPECT_EQ(session_.Count(MessageKind::kFinishEnum), 1u);
  EXPECT_EQ(session_.ToolActive(), false);
  host.faults().Clear();
  session_.Client().Close(closed);
  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  EXPECT_TRUE(session_.ShowsClientList());
}

// Neither messages nor fetches to such a host may delay the release of the console.
TEST_F(ConsoleTest, AHostThatWantsEverythingAgainDoesNotHoldTheConsole) {
  Agent& agent = session_.StartServingAgent();
  session_.Host().faults().Add({.action = host::FaultAction::kResubmit, .times = 1'000'000'000});
  session_.Open({.title = "told again and again"});
  std::this_thread::sleep_for(1100ms);  // into its report, and into a fetch
  proxy_.State().console_active = false;
  EXPECT_TRUE(WaitForLine(agent, "graphical console released"));
  session_.Host().faults().Clear();
  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
}

TEST_F(ConsoleTest, ASuspendedAgentLeavesTheConsoleToAnother) {
  session_.Open({.title = "shared"});
  Agent& first = session_.StartServingAgent();
  LoseConsole(first);
  Agent second(session_.Server().Display(), {"-r", "100"});
  ASSERT_TRUE(WaitForLine(second, "started"));
  proxy_.State().console_active = true;
  EXPECT_TRUE(WaitForLine(first, "waiting for graphical console ownership", 2));
  EXPECT_EQ(ConsoleLines(first.Pid()).back(), "waiting for graphical console ownership");
  EXPECT_TRUE(WaitUntil([&] { return session_.Count(MessageKind::kFinishEnum, second.Pid()) == 1; }, kSoon));
  second.Kill(SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return session_.Count(MessageKind::kFinishEnum, first.Pid()) == 2; }, kSoon));
  for (const Agent* agent : {&first, &second}) {
    EXPECT_EQ(session_.Count(MessageKind::kAddRun, agent->Pid()), 1u);
  }
  // What one has given back is not given back again at its end.
  proxy_.State().console_active = false;
  ASSERT_TRUE(WaitUntil([] { return ConsoleOwners() == 0; }, kSoon));
  Agent third(session_.Server().Display(), {"-r", "100"});
  ASSERT_TRUE(WaitForLine(third, "started"));
  session_.StopAgent();
  EXPECT_EQ(ConsoleOwners(), 1);
  third.Stop();
}

TEST_F(ConsoleTest, AnAgentStartedInTheBackgroundEndsWhenAskedAndServesOnceTheConsoleIsThere) {
  session_.Open({.title = "early"});
  for (const bool regains : {false, true}) {
    proxy_.State().console_active = false;
    Agent& agent = session_.StartAgent();
    LoseConsole(agent);
    if (regains) {
      proxy_.State().console_active = true;
      EXPECT_TRUE(session_.Sees("early"));
      EXPECT_THAT(ConsoleLines(agent.Pid()), testing::Contains("resumed"));
      EXPECT_THAT(ConsoleLines(agent.Pid()), testing::Not(testing::Contains("started")));
    } else {
      session_.StopAgent();
      EXPECT_TRUE(LogContains("Tools Service: worker thread stopped (interrupted on wait graphic console)."));
      EXPECT_EQ(session_.Count(MessageKind::kToolState), 0u);
      EXPECT_EQ(session_.Count(MessageKind::kUnregister), 1u);
    }
  }
}

}  // namespace
}  // namespace qel::test
