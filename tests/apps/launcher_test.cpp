// Which file is executed, and what becomes of what cannot be.
#include "apps/launcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
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

  // Launches the program and waits for the report that it has ended. Returns how many reports there are of it.
  std::ptrdiff_t Run(const std::string& program) {
    launcher_.LaunchApplication("app of " + program, {program, "argument"});
    const auto reports = [&] {
      const std::lock_guard guard(lock_);
      return std::ranges::count(reported_, "app of " + program);
    };
    WaitUntil([&] { return reports() > 0; });
    return reports();
  }
  std::string WriteExecutable(const std::filesystem::path& file, const std::string& content) {
    const std::filesystem::path path = files_.Write(file, content);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
  }

  LogCapture log_;
  TempDir files_;
  std::mutex lock_;
  std::vector<std::string> reported_;
  LaunchedProcessTable launched_;
  GuestCommands host_{[this](TgRequest& request) {
    launched_.Erase(0);  // would hang if the lock were held while sending
    const std::lock_guard guard(lock_);
    reported_.push_back(std::get<host::RmvRunByPath>(HostView(request)).path);
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
  // The shell would take this for a script; nobody meant it to be one.
  const std::filesystem::path marker = files_.Path() / "marker";
  const std::string entry = WriteExecutable("x.desktop", "[Desktop Entry]\nName=x\n>" + marker.string() + "\n");
  const std::string text = files_.Write("text", "no program");
  for (const std::string& name : {std::string("/no/such/program"), std::string("no-such-program"), std::string(), text,
                                  files_.Path().string(), entry}) {
    EXPECT_EQ(Run(name), 1) << name;
    EXPECT_EQ(log_.Count("Error: Failed to execute process '" + name + "'"), 1);
  }
  EXPECT_FALSE(std::filesystem::exists(marker));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGTERM)) << "blocked for the fork alone";
  launcher_.LaunchApplication("nothing", {});
}

TEST_F(LauncherTest, ProgramsAreFoundAsTheShellDoes) {
  const std::string out = files_.Path() / "out";
  const std::string script = WriteExecutable("dir/qel-script", "echo \"$0 $1\" >" + out + "\n");
  files_.Write("closed/qel-script", "");  // not executable: the search goes on
  const ScopedEnvironment path(
      {{"PATH", "/no/such:" + (files_.Path() / "closed").string() + ":" + (files_.Path() / "dir").string()}});
  EXPECT_EQ(Run("qel-script"), 1);
  std::string line;
  std::getline(std::ifstream(out), line);
  EXPECT_EQ(line, script + " argument");
}

}  // namespace
}  // namespace qel::test
