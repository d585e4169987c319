// The worker's loop, services, pipes and states, without a display.
#include "tools_service/base_service_control.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <thread>

#include "recording_service.h"
#include "support/log_capture.h"
#include "support/without_threads.h"

namespace {
std::array<int, 2> g_semget_errors{};  // errno values for creating and for opening a set; 0: no error
}

// Replaces the C library's function.
extern "C" int semget(key_t key, int count, int flags) noexcept {
  const int error = g_semget_errors[(flags & IPC_CREAT) != 0 ? 0 : 1];
  errno = error;
  return error != 0 ? -1 : static_cast<int>(syscall(SYS_semget, key, count, flags));
}

namespace qel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;
using test::LogCapture;
using test::RecordingService;
using test::WaitUntil;

std::atomic<double> g_clock_shift{0};

// A control whose display is always available. The test sets whether its console is active.
class TestControl : public QelBaseServiceControl {
 public:
  TestControl() : QelBaseServiceControl("test", [] { return SystemWallClock() + g_clock_shift; }) { g_clock_shift = 0; }

  bool OwnUserSession() override { return true; }
  bool IsConsoleActive() override { return ++console_questions, console_active; }
  using QelBaseServiceControl::Cleanup;
  using QelBaseServiceControl::retry_pause_;

  std::atomic<bool> console_active{true};
  std::atomic<int> console_questions{0};

 protected:
  bool Connect() override { return true; }
  void Disconnect() override {}
  void DispatchEvents() override { HandOut(this); }
};

class BaseServiceControlTest : public testing::Test {
 protected:
  ~BaseServiceControlTest() override { End(); }

  void Start(std::uint32_t period_ms) {
    ASSERT_TRUE(control_.Init(key_.Value(), false));
    EXPECT_TRUE(control_.AddService(&first_.descriptor));
    EXPECT_TRUE(control_.AddService(&second_.descriptor));
    EXPECT_FALSE(control_.AddService(&first_.descriptor)) << "the service was added before";
    runner_ = std::thread([this, period_ms] { control_.Run(period_ms); });
  }
  void LoseConsole() {
    control_.console_active = false;
    ASSERT_TRUE(WaitUntil([&] { return key_.Count() == 0; }));
  }
  void End() {
    if (runner_.joinable()) {
      control_.Stop();
      runner_.join();
    }
    control_.Deinit();
  }
  void ExpectLogged(const Texts& texts) {
    for (const std::string& text : texts) {
      EXPECT_EQ(log_.Count(text), 1) << text;
    }
  }
  std::string IdAndKey() { return std::to_string(key_.Id()) + ", key=" + std::to_string(key_.Value()); }

  test::SemaphoreKey key_;
  test::Journal journal_;
  RecordingService first_{"first", journal_};
  RecordingService second_{"second", journal_};
  RecordingService stranger_{"stranger", journal_};  // the control does not know this service
  TestControl control_;
  LogCapture log_;
  std::thread runner_;
};

TEST_F(BaseServiceControlTest, SuspendsAndResumes) {
  second_.on_init = [&](ServiceContext&) { return journal_.Count("second.init") > 1; };  // fails at the first call
  Start(20);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 2));
  LoseConsole();
  EXPECT_EQ(journal_.Count("second.poll"), 0) << "its init has failed";
  control_.console_active = true;
  ASSERT_TRUE(journal_.WaitFor("second.poll"));
  LoseConsole();
  End();  // stops every service again, although they are suspended
  Texts calls = journal_.Entries();
  std::erase_if(calls, [](const std::string& call) { return call.ends_with("poll") || call.ends_with("event"); });
  EXPECT_EQ(calls, (Texts{"first.init", "second.init", "first.stop", "first.init", "second.init", "first.stop",
                          "second.stop", "first.stop", "second.stop"}));
  EXPECT_EQ(log_.Count("Warning: Tools Service: can't initialize all components"), 2) << "it is logged again";
}

TEST_F(BaseServiceControlTest, AClockSetBackDelaysNothing) {
  first_.on_poll = [&](ServiceContext&) {
    if (journal_.Count("first.poll") == 2) {
      g_clock_shift = -10'000;
    }
  };
  Start(100);
  ASSERT_TRUE(journal_.WaitFor("second.poll", 6)) << "services wait until the clock reaches the old time";
  LoseConsole();
  g_clock_shift = -20'000;
  const int before = journal_.Count("first.poll");
  control_.console_active = true;
  EXPECT_TRUE(journal_.WaitFor("first.poll", before + 2));
  key_.Remove();  // so that releasing the console fails
  End();
  ExpectLogged({"Error: QelSemPost:154 semop() failed. Invalid argument (errno = 22)"});
}

// Endless work delays neither the polls nor a stop, and the loop continues after failures.
TEST_F(BaseServiceControlTest, SurvivesEndlessWorkAndFailures) {
  std::atomic<int> pieces{0};
  first_.descriptor.event = second_.descriptor.event = nullptr;  // there are too many events to record
  first_.descriptor.work = [&](ServiceContext&) { return ++pieces, true; };
  // With a pipe the worker waits in poll(). If no time is left, its timeout must not become negative.
  second_.on_init = [&](ServiceContext&) { return control_.AddPipe(&second_.descriptor) != nullptr; };
  second_.on_poll = [](ServiceContext&) { throw std::bad_alloc(); };
  second_.on_stop = [](ServiceContext&) { return false; };
  Start(50);
  ASSERT_TRUE(journal_.WaitFor("second.poll", 5));
  semid_ds status{};
  semctl(key_.Id(), 0, IPC_STAT, &status);
  EXPECT_EQ(status.sem_perm.mode & 0777, 0666) << "the agents of all users share the semaphore";
  EXPECT_GT(pieces, journal_.Count("second.poll"));
  control_.Cleanup();
  EXPECT_FALSE(control_.AddService(&stranger_.descriptor));
  EXPECT_FALSE(control_.Deinit());
  const auto asked = Clock::now();
  End();
  EXPECT_LT(Clock::now() - asked, 1s);
  ExpectLogged({"QelSemOpen:101 semget() Created sem=" + IdAndKey(),
                "Warning: Tools Service: skip cleanup (wrong thread)",
                "Error: Tools Service: can't add service (service thread started)",
                "Error: Tools Service: can't deinitialize (service started yet)",
                "Error: Tools Service: can't deinitialize all components properly"});
  EXPECT_GE(log_.Count("Error: Tools Service: poll of service second failed: std::bad_alloc"), 5);
}

TEST_F(BaseServiceControlTest, TriesAgainWhatMaySucceedLaterAndWakesUpOncePerPeriod) {
  control_.retry_pause_ = 50ms;
  first_.descriptor.may_succeed_later = true;
  first_.on_init = [&](ServiceContext&) { return journal_.Count("first.init") == 3; };
  second_.on_init = [](ServiceContext&) { return false; };
  Start(20);
  ASSERT_TRUE(journal_.WaitFor("first.poll", 15));
  EXPECT_EQ(journal_.Count("first.init"), 3);
  EXPECT_EQ(journal_.Count("second.init"), 1);
  EXPECT_LE(control_.console_questions, 15 + 10);
}

TEST_F(BaseServiceControlTest, LeavesAWorkerThatHangs) {
  static TestControl control;  // its worker is not joined
  std::atomic<bool> released{false};
  first_.on_poll = [&](ServiceContext&) { control.Stop(), released.wait(false); };
  ASSERT_TRUE(control.Init(key_.Value(), false));
  control.AddService(&first_.descriptor);
  const auto start = Clock::now();
  control.Run(50);
  EXPECT_LT(Clock::now() - start, 4s);
  EXPECT_TRUE(control.IsWorkerStuck());
  control.ReleaseConsole();
  EXPECT_EQ(key_.Count(), 0);
  released = true;
  released.notify_all();
  const std::string last = "Tools Service: worker thread stopped (" + std::to_string(getuid()) + ":'').";
  ASSERT_TRUE(WaitUntil([&] { return log_.Contains(last); }));
  ExpectLogged({"Tools Service: graphical console released (" + std::to_string(getuid()) + ":'')"});
}

TEST_F(BaseServiceControlTest, APipeWakesOnlyItsService) {
  const ServicePipe* pipe = nullptr;
  first_.on_init = [&](ServiceContext&) {
    EXPECT_EQ(control_.AddPipe(&stranger_.descriptor), nullptr);
    pipe = control_.AddPipe(&second_.descriptor);
    return pipe != nullptr && control_.AddPipe(&second_.descriptor) == pipe;
  };
  Start(3'600'000);
  for (int polls = 1; polls < 5; ++polls) {
    ASSERT_TRUE(journal_.WaitFor("second.poll", polls));
    if (polls == 4) {
      control_.Stop();  // the pipe wakes the worker long before the next period
    }
    ASSERT_EQ(write(pipe->write_end.Get(), "wake", 4), 4);
  }
  EXPECT_EQ(journal_.Count("first.poll"), 1);
}

// Another agent owns the console. The control waits until the semaphore is removed or the control is stopped.
TEST_F(BaseServiceControlTest, EndsWithoutServingIfAnotherAgentOwnsTheConsole) {
  for (const bool removed : {true, false}) {
    key_.Set(1);
    control_.console_questions = 0;
    Start(20);
    ExpectLogged({"QelSemOpen:97 semget() Opened sem=" + IdAndKey()});
    ASSERT_TRUE(WaitUntil([&] { return control_.console_questions > 0; }));
    removed ? key_.Remove() : control_.Stop();
    runner_.join();
    control_.Deinit();
    EXPECT_EQ(key_.Count(), removed ? -1 : 1);
  }
  EXPECT_TRUE(journal_.Entries().empty());
  ExpectLogged({"Error: QelSemTryWait:139 semop() failed. Invalid argument (errno = 22)"});
}

TEST(ConsoleSemaphoreTest, LogsWhyItCannotBeOpened) {
  const LogCapture log;
  for (const auto& errors : {std::array{ENOSPC, 0}, {EEXIST, EACCES}, {EEXIST, ENOENT}}) {  // last: just removed
    g_semget_errors = errors;
    EXPECT_FALSE(ConsoleSemaphore().Open(1));
  }
  g_semget_errors = {};
  EXPECT_EQ(log.Texts(), (Texts{"Warning: QelSemOpen:83 semget() failed. No space left on device (errno = 28)",
                                "Warning: QelSemOpen:92 semget() failed. Permission denied (errno = 13)"}));
}

TEST_F(BaseServiceControlTest, AFailedThreadStartIsLoggedAndCanBeRepeated) {
  {
    const test::WithoutThreads no_threads;
    control_.Run(20);
  }
  ExpectLogged({"Error: Tools Service: can't start service worker thread (err = 11)"});
  Start(20);
  EXPECT_TRUE(journal_.WaitFor("second.poll"));
}

}  // namespace
}  // namespace qel
