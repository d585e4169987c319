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
  TestControl() : QelBaseServiceControl("test", ShiftedClock) { g_clock_shift = 0; }

  bool OwnUserSession() override { return session_granted; }
  bool IsConsoleActive() override {
    ++console_questions;
    return console_active;
  }
  void CleanUpFromHere() { Cleanup(); }

  using QelBaseServiceControl::retry_pause_;

  std::atomic<bool> console_active{true};
  std::atomic<bool> session_granted{true};
  std::atomic<int> console_questions{0};

 protected:
  bool Connect() override { return true; }
  void Disconnect() override {}
  void DispatchEvents() override {}
};

class BaseServiceControlTest : public testing::Test {
 protected:
  ~BaseServiceControlTest() override { End(); }

  void Start(std::uint32_t period_ms) {
    ASSERT_TRUE(control_.Init(key_.Value(), false));
    EXPECT_TRUE(control_.AddService(&first_.descriptor));
    EXPECT_TRUE(control_.AddService(&second_.descriptor));
    EXPECT_FALSE(control_.AddService(&first_.descriptor)) << "it is there already";
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
  for (const char* text :
       {"Error: Tools Service: can't add service (service thread started)",
        "Error: Tools Service: can't deinitialize (service started yet)",
        "Warning: Tools Service: skip cleanup (wrong thread)", "Warning: Tools Service: service already stopping..."}) {
    EXPECT_EQ(log_.Count(text), 1) << text;
  }
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
  EXPECT_EQ(log_.Count("Warning: Tools Service: can't initialize all components"), 2) << "a failure is never forgotten";
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

TEST_F(BaseServiceControlTest, AClockSetBackWhileSuspendedDelaysNothing) {
  Start(50);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 2));
  control_.console_active = false;
  ASSERT_TRUE(journal_.WaitFor("first.stop"));
  g_clock_shift = -10'000;
  const int before = journal_.Count("first.poll");
  control_.console_active = true;
  EXPECT_TRUE(journal_.WaitFor("first.poll", before + 2));
}

// Work without end keeps neither the polls nor a stop waiting, and what fails is left behind.
TEST_F(BaseServiceControlTest, ARoundEndsAndAFailureIsSurvived) {
  std::atomic<int> pieces{0};
  first_.descriptor.work = [&](ServiceContext&) { return ++pieces, true; };
  second_.on_poll = [](ServiceContext&) { throw std::bad_alloc(); };
  Start(50);
  ASSERT_TRUE(journal_.WaitFor("second.poll", 5));
  EXPECT_GT(pieces, journal_.Count("second.poll"));
  const auto asked = std::chrono::steady_clock::now();
  End();
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  EXPECT_EQ(journal_.Count("second.stop"), 1);
  EXPECT_GE(log_.Count("Error: Tools Service: poll of service second failed: std::bad_alloc"), 5);
}

TEST_F(BaseServiceControlTest, TriesAgainWhatMaySucceedLater) {
  control_.retry_pause_ = std::chrono::milliseconds(10);
  first_.descriptor.may_succeed_later = true;
  first_.on_init = [&](ServiceContext&) { return journal_.Count("first.init") == 3; };
  second_.on_init = [](ServiceContext&) { return false; };
  Start(10);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 5));
  EXPECT_EQ(journal_.Count("first.init"), 3);
  EXPECT_EQ(journal_.Count("second.init"), 1);
}

TEST_F(BaseServiceControlTest, LeavesAWorkerThatHangs) {
  static TestControl control;  // nobody waits for its worker's end
  std::atomic<bool> released{false};
  first_.on_poll = [&](ServiceContext&) { released.wait(false); };
  ASSERT_TRUE(control.Init(key_.Value(), false));
  control.AddService(&first_.descriptor);
  runner_ = std::thread([] { control.Run(50); });
  ASSERT_TRUE(journal_.WaitFor("first.poll"));
  const auto asked = std::chrono::steady_clock::now();
  control.Stop();
  runner_.join();
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(4));
  EXPECT_TRUE(control.IsWorkerStuck());
  control.ReleaseConsole();
  EXPECT_EQ(key_.Count(), 0);
  released = true;
  released.notify_all();
  const std::string last = "Tools Service: worker thread stopped (" + std::to_string(getuid()) + ":'').";
  ASSERT_TRUE(test::WaitUntil([&] { return log_.Contains(last); }));
}

TEST_F(BaseServiceControlTest, APipeWakesItsServiceAlone) {
  ASSERT_TRUE(control_.Init(key_.Value(), false));
  control_.AddService(&first_.descriptor);
  control_.AddService(&second_.descriptor);
  const ServicePipe* const pipe = control_.AddPipe(&second_.descriptor);
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
  Start(50);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 20));
  EXPECT_LE(control_.console_questions, journal_.Count("first.poll") + 3);
}

TEST_F(BaseServiceControlTest, EndsWithoutServingWhenTheConsoleIsAnothers) {
  key_.Set(1);
  Start(20);
  ASSERT_TRUE(test::WaitUntil([&] { return control_.console_questions > 0; }));
  End();
  EXPECT_TRUE(log_.Contains("Tools Service: worker thread stopped (interrupted on wait graphic console ownership)."));
  EXPECT_TRUE(journal_.Entries().empty());
  EXPECT_EQ(key_.Count(), 1);
}

TEST_F(BaseServiceControlTest, EndsWithoutServingWhenRefusedOrStoppedBefore) {
  for (const bool granted : {false, true}) {
    ASSERT_TRUE(control_.Init(key_.Value(), true));
    EXPECT_FALSE(control_.Init(key_.Value(), true)) << "initialised already";
    control_.AddService(&first_.descriptor);
    control_.session_granted = granted;
    if (granted) {
      control_.Stop();
    }
    control_.Run(20);
    EXPECT_TRUE(control_.Deinit());
  }
  EXPECT_TRUE(journal_.Entries().empty());
  EXPECT_TRUE(log_.Contains("Error: Tools Service: can not own user session. Will exit now..."));
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: can't start service worker thread (not idle state 2)"));
  EXPECT_FALSE(control_.Init(key_.Value(), false)) << "stopped for good";
}

TEST(ToolsServiceTest, RefusesWhatHasNoControl) {
  const LogCapture log;
  EXPECT_FALSE(ToolsServiceInit(1, 3, false));
  EXPECT_FALSE(ToolsServiceDeinit());
  ToolsServiceStop();
  ToolsServiceRun(10);
  const ServicePipe pipe;
  EXPECT_FALSE(ToolsServiceWakeUp(&pipe) || ToolsServiceIsRunning());
  EXPECT_EQ(log.Texts(),
            (std::vector<std::string>{"Error: Tools Service: can't initialize service (type=3)",
                                      "Error: Tools Service: can't deinitialize service (non initialized)"}));
}

}  // namespace
}  // namespace qel
