#include "apps/process_identity.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

// A sleeping process whose executable and whose first argument are chosen freely.
class Sleeper {
 public:
  Sleeper(const std::string& executable, const std::string& first_argument) {
    std::string argument = first_argument;
    std::string seconds = "1000";
    char* arguments[] = {argument.data(), seconds.data(), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, executable.c_str(), nullptr, nullptr, arguments, environ), 0);
    // A program that is being started has its command line a moment after its executable.
    const std::string command_line = "/proc/" + std::to_string(pid_) + "/cmdline";
    EXPECT_TRUE(WaitUntil([&] { return std::ifstream(command_line).peek() != EOF; }));
  }
  ~Sleeper() { waitpid(Kill(), nullptr, 0); }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  pid_t Pid() const { return pid_; }
  pid_t Kill() const {
    kill(pid_, SIGKILL);
    return pid_;
  }

 private:
  pid_t pid_ = -1;
};

TEST(ProcessIdentity, IgnoresTheDesktopsOwnProcesses) {
  constexpr const char* kPlasma = "kdeinit4: plasma-desktop [kdeinit]";
  const struct {
    const char* executable;
    const char* first_argument;
    bool ignored;
    bool window_manager;
  } rows[] = {
      {"kwin", "sleep", true, true},
      {"kwin_x11", "sleep", false, false},
      {"plasmashell", "plasmashell", true, false},
      {"kdeinit4", kPlasma, true, false},
      {"kdeinit4", "kdeinit4: plasma-desktop [kdeinit]x", false, false},
      {"other", kPlasma, false, false},
  };
  for (const auto& row : rows) {
    const TempDir directory;
    const std::string path = directory.Path() / row.executable;
    std::filesystem::copy_file("/bin/sleep", path);
    const Sleeper process(path, row.first_argument);
    EXPECT_EQ(ExecutablePath(process.Pid()), path);
    bool window_manager = true;
    EXPECT_EQ(IsIgnoredProcess(process.Pid(), window_manager), row.ignored) << path << " as " << row.first_argument;
    EXPECT_EQ(window_manager, row.window_manager) << path;
  }
}

TEST(ProcessIdentity, FallsBackToTheNameOfTheProcess) {
  const TempDir directory;
  const std::string path = directory.Path() / "plasmashell";
  std::filesystem::copy_file("/bin/sleep", path);
  const Sleeper process(path, "sleep");
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process.Kill()), &info, WEXITED | WNOWAIT), 0);
  // What has ended and is not reaped has a name, but no executable any more.
  EXPECT_EQ(ExecutablePath(process.Pid()), "plasmashell");
  bool window_manager = true;
  EXPECT_TRUE(IsIgnoredProcess(process.Pid(), window_manager));
  EXPECT_EQ(ExecutablePath(-1), "");
  EXPECT_FALSE(IsIgnoredProcess(-1, window_manager));
}

}  // namespace
}  // namespace qel::test
