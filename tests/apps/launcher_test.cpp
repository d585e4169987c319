// Programs that cannot be executed.
#include "apps/launcher.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <semaphore>
#include <thread>

#include "apps/child_reaper.h"
#include "host_view.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

class LauncherTest : public ::testing::Test {
 protected:
  LauncherTest() { reaper_.Install(); }

  // Launches the program and waits for the report that it has ended.
  void Run(const std::string& program) {
    launcher_.LaunchApplication("app of " + program, {program, "argument"});
    EXPECT_TRUE(reports_.try_acquire_for(std::chrono::seconds(30))) << program;
    EXPECT_EQ(reported_, "app of " + program);
  }

  LogCapture log_;
  TempDir files_;
  std::string reported_;
  std::counting_semaphore<> reports_{0};
  LaunchedProcessTable launched_;
  GuestCommands host_{[this](TgRequest& request) {
    launched_.Erase(0);  // hangs if the sender holds the lock
    reported_ = std::get<host::RmvRunByPath>(HostView(request)).path;
    reports_.release();
    return true;
  }};
  Launcher launcher_{launched_};
  ChildReaper reaper_{host_, launched_};
};

TEST_F(LauncherTest, AFailedStartIsReportedExactlyOnce) {
  // This thread often holds the allocator's lock at a fork. The child would wait for the lock for ever.
  std::jthread busy([](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      std::string(5000, 'x').shrink_to_fit();
    }
  });
  const std::string out = files_.Path() / "out";
  const std::string entry = files_.Write("x.desktop", "touch '" + out + "'\n");  // no shell may run it
  std::filesystem::permissions(entry, std::filesystem::perms::owner_all);
  for (const std::string& name : {std::string("no-such-program"), std::string(), files_.Write("text", "").string(),
                                  (files_.Path() / "text/x").string(), entry}) {
    Run(name);
    EXPECT_EQ(log_.Count("Error: Failed to execute process '" + name + "'"), 1);
  }
  EXPECT_FALSE(reports_.try_acquire());
  EXPECT_FALSE(std::filesystem::exists(out));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "the signal is still blocked after the fork";
}

}  // namespace
}  // namespace qel::test
