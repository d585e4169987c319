// Which file is executed, and what becomes of what cannot be.
#include "apps/launcher.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "apps/child_reaper.h"
#include "host_view.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

class LauncherTest : public ::testing::Test {
 protected:
  LauncherTest() { reaper_.Install(); }

  // How often the end of a program launched under this name was reported.
  std::ptrdiff_t Reported(const std::string& app) {
    const std::lock_guard guard(lock_);
    return std::ranges::count(reported_, app);
  }
  bool WaitForReport(const std::string& app) {
    return WaitUntil([&] { return Reported(app) > 0; });
  }

  LogCapture log_;
  TempDir files_;
  std::mutex lock_;
  std::vector<std::string> reported_;
  LaunchedProcessTable launched_;
  GuestCommands host_{[this](TgRequest& request) {
    launched_.Erase(0);  // would hang if the lock were held while sending
    const host::Notification message = HostView(request);
    const std::lock_guard guard(lock_);
    reported_.push_back(std::get<host::RmvRunByPath>(message).path);
    return true;
  }};
  Launcher launcher_{launched_};
  ChildReaper reaper_{host_, launched_};
};

TEST_F(LauncherTest, WhatCannotBeExecutedIsReportedExactlyOnce) {
  std::atomic<bool> stop{false};
  std::thread busy([&] {  // a child must not wait for the allocator's lock, which nobody in it will release
    while (!stop.load()) {
      std::string(5000, 'x').shrink_to_fit();
    }
  });
  const std::string text = files_.Write("text", "no program");
  // The shell would take this for a script; nobody meant it to be one.
  const std::string marker = files_.Path() / "marker";
  const std::string entry = files_.Write("x.desktop", "[Desktop Entry]\nName=x\n>" + marker + "\n");
  chmod(entry.c_str(), 0755);
  for (const std::string& name : {std::string("/no/such/program"), std::string("no-such-program"), std::string(), text,
                                  files_.Path().string(), entry}) {
    const std::string app = "app of " + name;
    launcher_.LaunchApplication(app, {name, "argument"});
    EXPECT_TRUE(WaitForReport(app)) << name;
    EXPECT_EQ(log_.Count("Error: Failed to execute process '" + name + "'"), 1);
    EXPECT_EQ(Reported(app), 1);
  }
  EXPECT_FALSE(std::filesystem::exists(marker));
  stop.store(true);
  busy.join();
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "blocked for the fork alone";
  launcher_.LaunchApplication("nothing", {});
  EXPECT_EQ(Reported("nothing"), 0);
}

TEST_F(LauncherTest, ProgramsAreFoundAsTheShellDoes) {
  const std::string out = files_.Path() / "out";
  const std::string script = files_.Write("dir/qel-script", "echo \"$0 $1\" >" + out + "\n");
  chmod(script.c_str(), 0755);
  files_.Write("closed/qel-script", "");  // not executable: the search goes on
  {
    const ScopedEnvironment path(
        {{"PATH", "/no/such:" + (files_.Path() / "closed").string() + ":" + (files_.Path() / "dir").string()}});
    launcher_.LaunchApplication("script", {"qel-script", "argument"});
  }
  EXPECT_TRUE(WaitForReport("script"));
  std::string line;
  std::getline(std::ifstream(out), line);
  EXPECT_EQ(line, script + " argument");
}

}  // namespace
}  // namespace qel::test
