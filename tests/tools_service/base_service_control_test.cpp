// The worker's loop, the services, pipes and states, without a display.
#include "tools_service/base_service_control.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "recording_service.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "tools_service/tools_service.h"

namespace qel {
namespace {

using test::Journal;
using test::LogCapture;
using test::RecordingService;
using test::SemaphoreKey;

std::atomic<double> g_clock_shift{0};

double ShiftedClock() {
  return SystemWallClock() + g_clock_shift;
}

// A display that is always there; the test decides about the console and the session.
class TestControl : public QelBaseServiceControl {
 public:
  TestControl() : QelBaseServiceControl(ShiftedClock) { g_clock_shift = 0; }

  void Run(std::uint32_t period_ms) override {
    StartWorkerThread(period_ms, [](QelBaseServiceControl& base) {
      auto& self = static_cast<TestControl&>(base);
      if (self.InitWorkerThread()) {
        self.WorkerLoop(self.PollPeriod() * 0.001);
      }
    });
  }
  bool OwnUserSession() override { return session_granted; }
  bool IsConsoleActive() override {
    ++console_questions;
    return console_active;
  }
  int ConnectionType() const override { return kConnectionX11; }
  void CleanUpFromHere() { Cleanup(); }

  std::atomic<bool> console_active{true};
  std::atomic<bool> session_granted{true};
  std::atomic<int> console_questions{0};

 protected:
  void DispatchEvents() override {}
};

class BaseServiceControlTest : public testing::Test {
 protected:
  ~BaseServiceControlTest() override { End(); }

  void Start(std::uint32_t period_ms, bool own_user_session = false) {
    ASSERT_TRUE(control_.Init(key_.Value(), own_user_session));
    control_.AddService(&first_.descriptor);
    control_.AddService(&second_.descriptor);
    runner_ = std::thread([this, period_ms] { control_.Run(period_ms); });
  }
  void End() {
    if (runner_.joinable()) {
      control_.Stop();
      runner_.join();
    }
    control_.Deinit();
  }

  using Texts = std::vector<std::string>;
  SemaphoreKey key_;
  Journal journal_;
  RecordingService first_{"first", journal_};
  RecordingService second_{"second", journal_};
  TestControl control_;
  LogCapture log_;
  std::thread runner_;
};

TEST_F(BaseServiceControlTest, ServesUntilItIsStopped) {
  Start(2'000);
  ASSERT_TRUE(journal_.WaitFor("second.poll"));
  EXPECT_EQ(key_.Count(), 1);
  EXPECT_FALSE(control_.AddService(&first_.descriptor));
  EXPECT_FALSE(control_.Deinit());
  control_.CleanUpFromHere();
  control_.Stop();
  control_.Stop();
  runner_.join();
  EXPECT_EQ(journal_.Entries(),
            (Texts{"first.init", "second.init", "first.poll", "second.poll", "first.stop", "second.stop"}));
  EXPECT_EQ(key_.Count(), 0);
  EXPECT_TRUE(log_.Contains("Error: Tools Service: can't add service (service thread started)"));
  EXPECT_TRUE(log_.Contains("Error: Tools Service: can't deinitialize (service started yet)"));
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: skip cleanup (wrong thread)"));
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: service already stopping..."));
}

TEST_F(BaseServiceControlTest, SuspendsAndResumes) {
  second_.on_init = [&](ServiceContext&) { return journal_.Count("second.init") > 1; };  // fails the first time
  Start(20);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 2));
  control_.console_active = false;
  ASSERT_TRUE(journal_.WaitFor("first.stop"));
  ASSERT_TRUE(test::WaitUntil([&] { return key_.Count() == 0; }));
  EXPECT_EQ(journal_.Count("second.poll") + journal_.Count("second.stop"), 0) << "it never became active";
  control_.console_active = true;
  ASSERT_TRUE(journal_.WaitFor("second.poll"));
  control_.console_active = false;
  ASSERT_TRUE(journal_.WaitFor("second.stop"));
  ASSERT_TRUE(test::WaitUntil([&] { return key_.Count() == 0; }));
  End();  // while suspended: each gets another stop
  Texts calls = journal_.Entries();
  std::erase_if(calls, [](const std::string& call) { return call.ends_with("poll"); });
  EXPECT_EQ(calls, (Texts{"first.init", "second.init", "first.stop", "first.init", "second.init", "first.stop",
                          "second.stop", "first.stop", "second.stop"}));
  const std::string session = "(" + std::to_string(getuid()) + ":'')";
  const Texts expected = {"Tools Service: worker thread started " + session + ". . .",
                          "Tools Service: waiting for graphical console ownership " + session + ". . .",
                          "Tools Service: graphical console owned " + session,
                          "Tools Service: started " + session,
                          "Warning: Tools Service: can't initialize all components",
                          "Tools Service: graphical console released " + session,
                          "Tools Service: suspended " + session,
                          "Tools Service: waiting for graphical console ownership " + session + ". . .",
                          "Tools Service: graphical console owned " + session,
                          "Tools Service: resumed " + session,
                          "Warning: Tools Service: can't initialize all components",
                          "Tools Service: graphical console released " + session,
                          "Tools Service: suspended " + session,
                          "Tools Service: stopping service...",
                          "Tools Service: worker thread stopped (interrupted on wait graphic console).",
                          "Tools Service: performing cleanup..."};
  Texts seen;
  for (const test::LogLine& line : log_.Lines()) {
    if (line.module == "QelCC" && line.text.find("sem") == std::string::npos) {
      seen.push_back(line.text);
    }
  }
  EXPECT_EQ(seen, expected);
}

TEST_F(BaseServiceControlTest, AClockSetBackMakesEveryServiceDueAtOnce) {
  first_.on_poll = [&](ServiceContext&) {
    if (journal_.Count("first.poll") == 2) {
      g_clock_shift = -10'000;
    }
  };
  Start(100);
  ASSERT_TRUE(journal_.WaitFor("second.poll", 6)) << "services wait for the clock to come to the old time";
}

TEST_F(BaseServiceControlTest, APipeWakesItsServiceAlone) {
  ASSERT_TRUE(control_.Init(key_.Value(), false));
  control_.AddService(&first_.descriptor);
  control_.AddService(&second_.descriptor);
  const ServicePipe* pipe = control_.AddPipe(&second_.descriptor);
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(control_.AddPipe(&second_.descriptor), pipe);
  RecordingService stranger("stranger", journal_);
  EXPECT_EQ(control_.AddPipe(&stranger.descriptor), nullptr);
  runner_ = std::thread([this] { control_.Run(3'600'000); });
  ASSERT_TRUE(journal_.WaitFor("second.poll"));
  constexpr std::uint32_t kWakeUp = 1;
  for (int polls = 2; polls < 5; ++polls) {
    ASSERT_EQ(write(pipe->write_end, &kWakeUp, sizeof kWakeUp), 4);
    ASSERT_TRUE(journal_.WaitFor("second.poll", polls));
  }
  EXPECT_EQ(journal_.Count("first.poll"), 1);
  control_.Stop();
  ASSERT_EQ(write(pipe->write_end, &kWakeUp, sizeof kWakeUp), 4);  // lets it notice before the hour is over
}

TEST_F(BaseServiceControlTest, WakesUpOncePerPeriod) {
  constexpr int kPeriods = 20;
  Start(50);
  ASSERT_TRUE(journal_.WaitFor("first.poll"));
  const int before = control_.console_questions;
  const int polls_before = journal_.Count("first.poll");
  ASSERT_TRUE(journal_.WaitFor("first.poll", polls_before + kPeriods));
  EXPECT_LE(control_.console_questions - before, kPeriods + 1);
}

TEST_F(BaseServiceControlTest, EndsWithoutServingWhen) {
  struct Case {
    const char* why;
    std::function<void()> prepare;
    const char* text;
  };
  const Case cases[] = {
      {"the session is refused", [&] { control_.session_granted = false; },
       "Error: Tools Service: can not own user session. Will exit now..."},
      {"it was stopped before", [&] { control_.Stop(); },
       "Warning: Tools Service: can't start service worker thread (not idle state 2)"},
  };
  for (const Case& row : cases) {
    ASSERT_TRUE(control_.Init(key_.Value(), true));
    control_.AddService(&first_.descriptor);
    row.prepare();
    control_.Run(20);
    EXPECT_TRUE(log_.Contains(row.text)) << row.why;
    EXPECT_TRUE(control_.Deinit()) << row.why;
    EXPECT_TRUE(journal_.Entries().empty()) << row.why;
  }
  control_.Stop();
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: service already stopped"));
  EXPECT_FALSE(control_.Init(key_.Value(), false));
  EXPECT_TRUE(log_.Contains("Error: Tools Service: can't initialize (not idle state 2)"));
}

TEST_F(BaseServiceControlTest, AddsEachServiceOnce) {
  ASSERT_TRUE(control_.Init(key_.Value(), false));
  EXPECT_TRUE(control_.AddService(&first_.descriptor));
  EXPECT_TRUE(control_.AddService(&second_.descriptor));
  EXPECT_FALSE(control_.AddService(&first_.descriptor));
  EXPECT_EQ(first_.descriptor.next, &second_.descriptor);
  EXPECT_EQ(second_.descriptor.next, nullptr);
  EXPECT_TRUE(log_.Contains("Error: Tools Service: add pipe (invalid service)"));
  EXPECT_FALSE(control_.Init(key_.Value(), false));
  EXPECT_TRUE(log_.Contains("Error: Tools Service: can't initialize (service already initialized)"));
}

TEST(ToolsServiceTest, RefusesWhatHasNoControl) {
  const LogCapture log;
  const SemaphoreKey key;
  EXPECT_FALSE(ToolsServiceInit(key.Value(), 3, false));
  EXPECT_TRUE(log.Contains("Error: Tools Service: can't initialize service (type=3)"));
  EXPECT_FALSE(ToolsServiceDeinit());
  EXPECT_TRUE(log.Contains("Error: Tools Service: can't deinitialize service (non initialized)"));
  ToolsServiceStop();
  ToolsServiceRun(10);
  const ServicePipe pipe;
  EXPECT_FALSE(ToolsServiceWakeUp(&pipe));
  EXPECT_FALSE(ToolsServiceIsRunning());
  EXPECT_EQ(log.Lines().size(), 2u);
}

}  // namespace
}  // namespace qel
