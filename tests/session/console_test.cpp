// The X server's control extension reports that the session has lost or regained the graphical console.

#include "control_extension/proxy.h"
#include "session/session_test.h"

namespace qel::test {
namespace {

// The log lines of an agent about the console, without the user and the display in parentheses.
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
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 3u) << "nothing is reported without the console";

  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.Sees("opened meanwhile"));
  EXPECT_TRUE(session_.NoLongerSees("closed meanwhile"));
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 5u) << "each window is reported once more";
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
  EXPECT_EQ(proxy_.State().claims, 0u) << "the agent must not claim the session";
}

// The console is lost while the agent fetches a reset command. The delays make the reset arrive during the message "not
// ready", if that is sent too early. "Not ready" must be the last message until the console is back.
TEST_F(ConsoleTest, AResetAtTheLossOfTheConsoleSendsNothing) {
  session_.Open({.title = "stays"});
  const Window closed = session_.Open({.title = "closed meanwhile"});
  host::Host& host = session_.Host();
  host.faults().SetDelay(3s, MessageKind::kFetch);
  Agent& agent = session_.StartServingAgent();
  host.faults().SetDelay(4s, MessageKind::kToolState);
  host.Send(host::ResetCommand());
  ASSERT_TRUE(WaitUntil([&] { return host.CommandsWaiting() == 0; }, kSoon));
  LoseConsole(agent);
  EXPECT_EQ(session_.Count(MessageKind::kToolState), 2u) << "one message 'ready', one 'not ready'";
  EXPECT_EQ(session_.Count(MessageKind::kFinishEnum), 1u);
  EXPECT_EQ(session_.ToolActive(), false);
  host.faults().Clear();
  session_.Client().Close(closed);
  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  EXPECT_TRUE(session_.ShowsClientList());
}

// The host requests every message again, for ever. This must not delay the release of the console.
TEST_F(ConsoleTest, EndlessResubmissionDoesNotDelayTheRelease) {
  Agent& agent = session_.StartServingAgent();
  session_.Host().faults().Add({.action = host::FaultAction::kResubmit, .times = 1'000'000'000});
  session_.Open({.title = "told again and again"});
  std::this_thread::sleep_for(1100ms);  // until the agent sends the window and a fetch
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
  // The first agent has released the console. Its end must not release the console of the third agent.
  proxy_.State().console_active = false;
  ASSERT_TRUE(WaitUntil([] { return ConsoleOwners() == 0; }, kSoon));
  Agent third(session_.Server().Display(), {"-r", "100"});
  ASSERT_TRUE(WaitForLine(third, "started"));
  session_.StopAgent();
  EXPECT_EQ(ConsoleOwners(), 1);
  third.Stop();
}

TEST_F(ConsoleTest, AnAgentStartedWithoutTheConsoleCanStopOrServeLater) {
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
