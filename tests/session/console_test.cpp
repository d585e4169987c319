// The graphical console lost and regained, as the X server's control extension tells it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "control_extension/proxy.h"
#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using host::MessageKind;

// What an agent's worker thread told about the console: the texts before the parenthesis with user and display.
std::vector<std::string> ConsoleLines(pid_t agent) {
  const std::string mine = ":" + std::to_string(agent) + ":";
  std::vector<std::string> texts;
  for (const std::string& line : LogLines()) {
    const std::string prefix = "/ Tools Service: ";
    const std::size_t start = line.find(prefix);
    const std::size_t end = line.find(" (" + std::to_string(getuid()) + ":'");
    if (start != std::string::npos && end != std::string::npos && line.find(mine) < start) {
      texts.push_back(line.substr(start + prefix.size(), end - start - prefix.size()));
    }
  }
  return texts;
}

bool WaitForLine(pid_t agent, const std::string& text) {
  return WaitUntil([&] { return std::ranges::count(ConsoleLines(agent), text) > 0; }, kSoon);
}

class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() : proxy_(session_.Server().Display()) { session_.SetAgentDisplay(proxy_.Display()); }

  // A message of an agent that was taken; how often.
  std::uint64_t CountOf(pid_t agent, MessageKind kind) {
    std::uint64_t count = 0;
    session_.Host().model().Read([&](const host::ModelState& state) {
      count = static_cast<std::uint64_t>(std::ranges::count_if(state.events, [&](const host::Event& event) {
        return event.agent == agent && host::KindOf(event.notification) == kind;
      }));
    });
    return count;
  }

  Session session_;
  control_extension::Proxy proxy_;
};

TEST_F(ConsoleTest, LostAndRegained) {
  session_.Open({.title = "stays"});
  const Window closed = session_.Open({.title = "closed meanwhile"});
  Agent& agent = session_.StartServingAgent();
  session_.Settle();
  proxy_.State().console_active = false;
  ASSERT_TRUE(WaitForLine(agent.Pid(), "suspended"));
  session_.Host().model().Read([](const host::ModelState& state) { EXPECT_EQ(state.tool_active, false); });
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
  session_.ExpectNoViolations();
}

// The host hears last that the tool is not ready, and gets everything when the console is back.
TEST_F(ConsoleTest, AResetFetchedWhileTheConsoleIsLostAnnouncesNothing) {
  session_.Open({.title = "stays"});
  const Window closed = session_.Open({.title = "closed meanwhile"});
  host::Host& host = session_.Host();
  host.faults().SetDelay(std::chrono::milliseconds(1500), MessageKind::kFetch);
  Agent& agent = session_.StartServingAgent();
  host.Send(host::ResetCommand());
  ASSERT_TRUE(WaitUntil([&] { return host.CommandsWaiting() == 0; }, kSoon));
  proxy_.State().console_active = false;
  ASSERT_TRUE(WaitForLine(agent.Pid(), "suspended"));
  host.model().Read([](const host::ModelState& state) {
    const auto last = std::find_if(state.events.rbegin(), state.events.rend(), [](const host::Event& event) {
      return host::KindOf(event.notification) != MessageKind::kFetch;
    });
    const auto* tool_state = std::get_if<host::ToolState>(&last->notification);
    EXPECT_TRUE(tool_state != nullptr && !tool_state->active);
  });
  session_.Client().Close(closed);
  proxy_.State().console_active = true;
  ASSERT_TRUE(WaitForLine(agent.Pid(), "resumed"));
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  EXPECT_TRUE(session_.ShowsClientList());
  session_.StopAgent();
  session_.ExpectNoViolations();
}

// Neither what it is told nor what it is asked for may keep the console from another session.
TEST_F(ConsoleTest, AHostThatWantsEverythingAgainDoesNotHoldTheConsole) {
  Agent& agent = session_.StartServingAgent();
  session_.Host().faults().Add({.action = host::FaultAction::kResubmit, .times = 1'000'000'000});
  IdleProcess& process = session_.NewProcess();
  session_.Client().Open({.pid = process.Pid(), .title = "told again and again"});
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // into its report, and into a fetch
  const auto lost = std::chrono::steady_clock::now();
  proxy_.State().console_active = false;
  EXPECT_TRUE(WaitForLine(agent.Pid(), "graphical console released"));
  // A second for the report, and for the fetch; one for the last word.
  EXPECT_LT(std::chrono::steady_clock::now() - lost, std::chrono::milliseconds(4500));
  session_.Host().faults().Clear();
  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, 2));
  session_.StopAgent();
}

TEST_F(ConsoleTest, ASuspendedAgentLeavesTheConsoleToAnother) {
  session_.Open({.title = "shared"});
  Agent& first = session_.StartServingAgent();
  proxy_.State().console_active = false;
  ASSERT_TRUE(WaitForLine(first.Pid(), "suspended"));
  Agent second(session_.Server().Display(), {"-r", "100"});
  ASSERT_TRUE(WaitForLine(second.Pid(), "started"));
  proxy_.State().console_active = true;
  EXPECT_TRUE(WaitUntil(
      [&] { return std::ranges::count(ConsoleLines(first.Pid()), "waiting for graphical console ownership") == 2; },
      kSoon));
  EXPECT_EQ(ConsoleLines(first.Pid()).back(), "waiting for graphical console ownership");
  EXPECT_TRUE(session_.Host().WaitFor([](const host::ModelState& state) { return state.enumeration_finished; }, kSoon));
  second.Signal(SIGTERM);
  second.ExpectOrderlyEnd();
  EXPECT_TRUE(WaitForLine(first.Pid(), "resumed"));
  EXPECT_TRUE(WaitUntil([&] { return CountOf(first.Pid(), MessageKind::kFinishEnum) == 2; }, kSoon));
  for (const pid_t agent : {first.Pid(), second.Pid()}) {
    EXPECT_EQ(CountOf(agent, MessageKind::kAddRun), 1u);
  }
  session_.StopAgent();
  session_.ExpectNoViolations();
}

TEST_F(ConsoleTest, AStopSignalEndsASuspendedAgent) {
  for (const bool served_before : {false, true}) {
    proxy_.State().console_active = served_before;
    Agent& agent = served_before ? session_.StartServingAgent() : session_.StartAgent();
    proxy_.State().console_active = false;
    ASSERT_TRUE(WaitForLine(agent.Pid(), "suspended"));
    EXPECT_EQ(CountOf(agent.Pid(), MessageKind::kToolState), served_before ? 2u : 0u);
    session_.StopAgent();
    EXPECT_TRUE(LogContains("Tools Service: worker thread stopped (interrupted on wait graphic console)."));
    // Services that ran before are stopped once more, which they bear.
    EXPECT_EQ(CountOf(agent.Pid(), MessageKind::kToolState), served_before ? 3u : 0u);
    EXPECT_EQ(CountOf(agent.Pid(), MessageKind::kUnregister), 1u);
  }
  session_.ExpectNoViolations();
}

TEST_F(ConsoleTest, AnAgentStartedInTheBackgroundServesOnceTheConsoleIsThere) {
  proxy_.State().console_active = false;
  session_.Open({.title = "early"});
  Agent& agent = session_.StartAgent();
  ASSERT_TRUE(WaitForLine(agent.Pid(), "suspended"));
  proxy_.State().console_active = true;
  EXPECT_TRUE(session_.Sees("early"));
  session_.StopAgent();
  EXPECT_THAT(ConsoleLines(agent.Pid()), testing::IsSupersetOf({"suspended", "resumed"}));
  EXPECT_THAT(ConsoleLines(agent.Pid()), testing::Not(testing::Contains("started")));
}

}  // namespace
}  // namespace qel::test
