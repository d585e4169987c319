// The X11 control on real servers, in processes of its own: what an agent's process does when the console, the X
// server, another agent or a signal changes its fate.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>

#include "control_extension/proxy.h"
#include "recording_service.h"
#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "support/x_server.h"

namespace qel {
namespace {

using control_extension::Proxy;

// Runs tests/tools_service/test_agent.cpp.
class Agent {
 public:
  Agent(const test::SemaphoreKey& key, const std::string& display, int period_ms = 100, bool busy = false) {
    const int output = open(OutputPath().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    test::ChildOptions options{
        .arguments = {QEL_TEST_AGENT, std::to_string(key.Value()), directory_.Path(), std::to_string(period_ms)},
        .environment = {{"DISPLAY", display}},
        .standard_output = output,
        .standard_error = output};
    if (busy) {
      options.arguments.push_back("busy");
    }
    process_ = std::make_unique<test::ChildProcess>(options);
    close(output);
  }

  test::ChildProcess& Process() { return *process_; }
  int Calls(const std::string& call) const { return Count(OutputPath(), call, true); }
  int LogLines(const std::string& text) const { return Count(directory_.Path() / "corvessan.log", text, false); }
  bool WaitForCall(const std::string& call, int count = 1) const {
    return test::WaitUntil([&] { return Calls(call) >= count; });
  }
  bool WaitForLog(const std::string& text, int count = 1) const {
    return test::WaitUntil([&] { return LogLines(text) >= count; });
  }
  // How it ended, for a test to compare with 0; with what it wrote, where that says more.
  testing::AssertionResult EndsWell(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto status = process_->Wait(timeout);
    if (status && status->exit_code == 0) {
      return testing::AssertionSuccess();
    }
    std::stringstream output;
    output << std::ifstream(OutputPath()).rdbuf();
    return testing::AssertionFailure() << (status ? "ended badly" : "does not end") << "\n" << output.str();
  }

 private:
  std::filesystem::path OutputPath() const { return directory_.Path() / "output"; }

  static int Count(const std::filesystem::path& path, const std::string& text, bool whole_line) {
    std::ifstream file(path);
    int count = 0;
    for (std::string line; std::getline(file, line);) {
      count += (whole_line ? line == text : line.find(text) != std::string::npos) ? 1 : 0;
    }
    return count;
  }

  test::TempDir directory_;
  std::unique_ptr<test::ChildProcess> process_;
};

TEST(XServiceControlTest, ServesAtOnceWithoutTheExtension) {
  const test::XServer server;
  const test::SemaphoreKey key;
  Agent agent(key, server.Display());
  ASSERT_TRUE(agent.WaitForCall("poll", 3));
  EXPECT_EQ(agent.LogLines("Warning: Tools Service: can't open CorvessanControl extension!"), 1);
  EXPECT_EQ(agent.LogLines("suspended"), 0);
  agent.Process().Kill(SIGTERM);
  EXPECT_TRUE(agent.EndsWell());
  EXPECT_EQ(agent.Calls("stop"), 1);
  EXPECT_EQ(agent.LogLines("Tools Service: X11 service cleanup completed"), 1);
  EXPECT_EQ(key.Count(), 0);
}

TEST(XServiceControlTest, FollowsTheConsole) {
  const test::XServer server;
  Proxy proxy(server.Display());
  proxy.State().console_active = false;
  const test::SemaphoreKey key;
  Agent agent(key, proxy.Display());
  ASSERT_TRUE(
      agent.WaitForLog("Tools Service: suspended (" + std::to_string(getuid()) + ":'" + proxy.Display() + "')"));
  EXPECT_EQ(proxy.State().claims, 1u);
  EXPECT_EQ(proxy.State().last_user, getuid());
  EXPECT_EQ(agent.Calls("init"), 0);
  proxy.State().console_active = true;
  ASSERT_TRUE(agent.WaitForCall("poll", 2));
  EXPECT_EQ(key.Count(), 1);
  proxy.State().console_active = false;
  ASSERT_TRUE(agent.WaitForLog("Tools Service: suspended", 2));
  EXPECT_EQ(agent.Calls("stop"), 1);
  EXPECT_EQ(key.Count(), 0);
  proxy.State().console_active = true;
  ASSERT_TRUE(agent.WaitForLog("Tools Service: resumed", 2));
  agent.Process().Kill(SIGTERM);
  EXPECT_TRUE(agent.EndsWell());
}

TEST(XServiceControlTest, EndsWhenTheSessionIsRefusedOrTheServerIsUnfit) {
  const test::XServer server;
  const test::XServer without_randr({"-extension", "RANDR"});
  Proxy proxy(server.Display());
  proxy.State().grant = false;
  const std::pair<std::string, const char*> cases[] = {
      {proxy.Display(), "Error: Tools Service: can not own user session. Will exit now..."},
      {without_randr.Display(), "Error: Tools Service: can't open RANDR extension!"},
      {":9999", "Error: Tools Service: can't open connection to XServer!"},
  };
  for (const auto& [display, text] : cases) {
    const test::SemaphoreKey key;
    Agent agent(key, display);
    EXPECT_TRUE(agent.EndsWell()) << text;
    EXPECT_EQ(agent.LogLines(text), 1) << text;
    EXPECT_EQ(agent.Calls("init"), 0) << text;
  }
}

// The connection is lost while the worker sleeps, or while it waits for a reply; then in the service's stop as well.
TEST(XServiceControlTest, SurvivesTheServersDeath) {
  for (const bool busy : {false, true}) {
    test::XServer server;
    const test::SemaphoreKey key;
    Agent agent(key, server.Display(), 100, busy);
    ASSERT_TRUE(agent.WaitForCall("poll"));
    server.Kill();
    EXPECT_TRUE(agent.EndsWell()) << "busy: " << busy;
    EXPECT_EQ(agent.Calls("stop"), 1);
    EXPECT_EQ(agent.LogLines("Tools Service: XIOError received"), 1);
    EXPECT_EQ(agent.LogLines("Tools Service: Will exit X worker thread now"), 1);
    EXPECT_EQ(agent.LogLines("Tools Service: deinitialized X11 service"), 1);
    EXPECT_EQ(key.Count(), 0) << "the kernel gives the console back";
  }
}

TEST(XServiceControlTest, AnotherAgentTakesOver) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    const test::XServer server;
    const test::SemaphoreKey key;
    Agent first(key, server.Display());
    ASSERT_TRUE(first.WaitForCall("poll"));
    Agent second(key, server.Display());
    ASSERT_TRUE(second.WaitForLog("Tools Service: waiting for graphical console ownership"));
    EXPECT_EQ(second.Calls("init"), 0);
    first.Process().Kill(signal);
    ASSERT_TRUE(first.Process().Wait());
    const auto gone = std::chrono::steady_clock::now();
    ASSERT_TRUE(second.WaitForCall("poll"));
    EXPECT_LT(std::chrono::steady_clock::now() - gone, std::chrono::seconds(3)) << "it looks once per second";
    EXPECT_EQ(second.LogLines("Tools Service: started"), 1);
    second.Process().Kill(SIGTERM);
    EXPECT_TRUE(second.EndsWell());
  }
}

TEST(XServiceControlTest, AStopSignalEndsItInEveryPhase) {
  const test::XServer server;
  Proxy proxy(server.Display());
  struct Phase {
    const char* log_text;  // that tells that the phase has begun
    bool console;
    int owners;  // of the semaphore before
  };
  const Phase phases[] = {
      {"Tools Service: initialized X11 service", true, 0},
      {"Tools Service: X11 worker thread initialized.", true, 0},
      {"Tools Service: suspended", false, 0},
      {"Tools Service: waiting for graphical console ownership", true, 1},
      {"Tools Service: started", true, 0},  // in the service's init
  };
  for (const Phase& phase : phases) {
    proxy.State().console_active = phase.console;
    const test::SemaphoreKey key;
    key.Set(phase.owners);
    Agent agent(key, proxy.Display());
    ASSERT_TRUE(agent.WaitForLog(phase.log_text)) << phase.log_text;
    for (int i = 0; i < 5; ++i) {
      agent.Process().Kill(SIGTERM);
    }
    EXPECT_TRUE(agent.EndsWell()) << phase.log_text;
    EXPECT_EQ(agent.Calls("stop"), agent.Calls("initialised")) << phase.log_text;
    EXPECT_EQ(key.Count(), phase.owners) << phase.log_text;
  }
}

}  // namespace
}  // namespace qel
