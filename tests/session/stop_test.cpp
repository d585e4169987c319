// A stop is never held up for long, whatever the agent waits for.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using host::MessageKind;

// Two seconds for a worker that waits for somebody else, and one and a period for the usual way.
constexpr auto kHeldUpStop = 3500ms;

// Keeps the X server from doing anything.
class StoppedServer {
 public:
  explicit StoppedServer(const Session& session) : pid_(session.Server().Pid()) { kill(pid_, SIGSTOP); }
  ~StoppedServer() { kill(pid_, SIGCONT); }
  StoppedServer(const StoppedServer&) = delete;
  StoppedServer& operator=(const StoppedServer&) = delete;

 private:
  pid_t pid_;
};

void ExpectStop(Session& session, Agent& agent, std::chrono::milliseconds limit) {
  agent.Signal(SIGTERM);
  agent.ExpectOrderlyEnd(limit);
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);
  EXPECT_TRUE(LogContains("closed"));
}

// What an agent that was serving does besides.
void ExpectConsoleReleased(Session& session) {
  session.Host().model().Read([](const host::ModelState& state) { EXPECT_EQ(state.tool_active, false); });
  // The log names the semaphore set whose value is the number of owners.
  int semaphore = -1;
  for (const std::string& line : LogLines()) {
    if (const std::size_t found = line.find("sem="); found != std::string::npos) {
      semaphore = std::stoi(line.substr(found + 4));
    }
  }
  EXPECT_EQ(semctl(semaphore, 0, GETVAL), 0);
  EXPECT_EQ(LogCount("deinitialized"), 1) << "the service ended in good order";
  session.ExpectNoViolations();
}

TEST(StopTest, WhileTheXServerStandsStill) {
  Session session;
  const Window window = session.Open({.title = "a window"});
  for (const bool busy : {false, true}) {
    SCOPED_TRACE(busy);
    ClearLog();
    Agent& agent = session.StartServingAgent();
    {
      const StoppedServer stopped(session);
      if (busy) {  // the agent asks the server something, and waits for the answer
        session.Host().Send(host::ActivateWindowCommand(static_cast<std::uint32_t>(window)));
        ASSERT_TRUE(WaitUntil([&] { return session.Host().CommandsWaiting() == 0; }, kSoon));
      }
      std::this_thread::sleep_for(300ms);  // three periods
      agent.Signal(SIGTERM);
      agent.ExpectOrderlyEnd(kHeldUpStop);
    }
    ExpectConsoleReleased(session);
  }
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 2u);
}

TEST(StopTest, WhileTheXServerStandsStillFromTheBeginning) {
  Session session;
  const StoppedServer stopped(session);
  Agent& agent = session.StartAgent();
  ASSERT_TRUE(session.WaitForCount(MessageKind::kRegister, 1));
  std::this_thread::sleep_for(500ms);  // it waits for its connection now
  ExpectStop(session, agent, kHeldUpStop);
}

TEST(StopTest, WhileSomebodyGrabsTheXServer) {
  Session session;
  session.Open({.title = "a window"});
  Agent& agent = session.StartServingAgent();
  {
    XClient grabber(session.Server().Display());
    const Window window = grabber.Open({.title = "grabs"});
    grabber.GrabServer();
    grabber.SetTitle(window, "to be read");
    std::this_thread::sleep_for(300ms);  // three periods
    ExpectStop(session, agent, kHeldUpStop);
  }
  ExpectConsoleReleased(session);
}

TEST(StopTest, WhileTheWindowsAreReportedOneByOne) {
  Session session;
  for (int i = 0; i < 30; ++i) {
    session.Open({.title = "window " + std::to_string(i)});
  }
  session.Host().faults().SetDelay(300ms, MessageKind::kAddRun);
  Agent& agent = session.StartAgent({"-r", "500"});
  ASSERT_TRUE(session.WaitForCount(MessageKind::kAddRun, 3));
  ExpectStop(session, agent, 1s + kPeriod + kSlack);
  ExpectConsoleReleased(session);
}

TEST(StopTest, WhileACommandNamesOneProcessAMillionTimes) {
  Session session;
  IdleProcess& process = session.NewProcess();
  const Window window = session.Open({.pid = process.Pid(), .title = "to be hidden"});
  Agent& agent = session.StartServingAgent();
  const std::vector<std::uint32_t> pids(1'000'000, static_cast<std::uint32_t>(process.Pid()));
  session.Host().Send(host::HideCommand(pids, {}, 1, 2));
  ASSERT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, 1));
  EXPECT_EQ(session.Host().model().Snapshot().last_hidden->windows,
            std::vector{static_cast<std::uint32_t>(session.Client().TopLevel(window))});
  std::this_thread::sleep_for(200ms);  // two periods
  ExpectStop(session, agent, kHeldUpStop);
  ExpectConsoleReleased(session);
}

}  // namespace
}  // namespace qel::test
