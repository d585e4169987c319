// Which file is executed, and what becomes of what cannot be.
#include "apps/launcher.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <thread>

#include "apps/child_reaper.h"
#include "host_view.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
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
  // Its first line goes into the file "out" when it is taken for a script.
  std::string WriteScript(const std::string& file) {
    const std::string path = files_.Write(file, "echo \"$0 $1\" >'" + Out() + "'\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
  }
  std::string Out() const { return files_.Path() / "out"; }

  LogCapture log_;
  TempDir files_;
  std::string reported_;
  std::counting_semaphore<> reports_{0};
  LaunchedProcessTable launched_;
  GuestCommands host_{[this](TgRequest& request) {
    launched_.Erase(0);  // would hang if the lock were held while sending
    reported_ = std::get<host::RmvRunByPath>(HostView(request)).path;
    reports_.release();
    return true;
  }};
  Launcher launcher_{launched_};
  ChildReaper reaper_{host_, launched_};
};

TEST_F(LauncherTest, WhatCannotBeExecutedIsReportedExactlyOnce) {
  std::jthread busy([](const std::stop_token& stop) {  // a child must not wait for the allocator's lock, which nobody
    while (!stop.stop_requested()) {                   // in it will release
      std::string(5000, 'x').shrink_to_fit();
    }
  });
  const std::string entry = WriteScript("x.desktop");  // nobody means one to be run by the shell
  for (const std::string& name :
       {std::string("no-such-program"), std::string(), files_.Write("text", "").string(), Out() + "/x", entry}) {
    Run(name);
    EXPECT_EQ(log_.Count("Error: Failed to execute process '" + name + "'"), 1);
  }
  EXPECT_FALSE(reports_.try_acquire());
  EXPECT_FALSE(std::filesystem::exists(Out()));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "blocked for the fork alone";
  launcher_.LaunchApplication("nothing", {});
}

TEST_F(LauncherTest, ProgramsAreFoundAsTheShellDoes) {
  const std::string script = WriteScript("dir/qel-script");
  const ScopedEnvironment path({{"PATH", "/no/such:" + files_.Path().string() + "/dir"}});
  Run("qel-script");
  std::string line;
  std::getline(std::ifstream(Out()), line);
  EXPECT_EQ(line, script + " argument");
}

}  // namespace
}  // namespace qel::test
