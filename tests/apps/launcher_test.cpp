#include "apps/launcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <ranges>
#include <sstream>
#include <thread>

#include "apps/child_reaper.h"
#include "apps/file_descriptor.h"
#include "fake_host.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

constexpr std::uint32_t kRmvRunByPath = 114;

// Launches through a reaper and a host that keep no lock while they talk.
class LauncherTest : public ::testing::Test {
 protected:
  LauncherTest() {
    host_.OnSend([this](const Bytes&) { launched_.Erase(0); });  // would hang if the lock were held while sending
    reaper_.Install();
  }

  // How often the end of a program launched under this name was reported.
  std::size_t Reported(std::string_view app) {
    const Bytes name = WideText(app);
    std::size_t count = 0;
    for (const Bytes& block : host_.Sent(kRmvRunByPath)) {
      count += std::ranges::search(block, name).empty() ? 0U : 1U;
    }
    return count;
  }

  bool WaitForReport(std::string_view app) {
    return WaitUntil([&] { return Reported(app) > 0; });
  }

  FakeHost host_;
  LogCapture log_;
  TempDir files_;
  LaunchedProcessTable launched_;
  Launcher launcher_{launched_};
  ChildReaper reaper_{host_.Commands(), launched_};
};

std::string Content(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST_F(LauncherTest, GivesTheProgramACleanStart) {
  // What a child could inherit: a descriptor, blocked and ignored signals, a lock of the allocator.
  const FileDescriptor leak(open("/dev/null", O_RDONLY));
  setenv("DESKTOP_AUTOSTART_ID", "1", 1);
  std::signal(SIGPIPE, SIG_IGN);
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop.load()) {
      std::string(5000, 'x').shrink_to_fit();
    }
  });
  sigset_t all;
  sigset_t before;
  sigset_t after;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  const std::string out = files_.Path() / "out";
  const std::string probe =
      "exec >$0; ls /proc/$$/fd; printf '<%s>' \"$@\"; read -r pid name state parent group rest </proc/$$/stat;"
      "echo $((group == $$)) ${DESKTOP_AUTOSTART_ID-unset} ${HOME:+kept}; grep -E 'Sig(Blk|Ign)' /proc/self/status";
  launcher_.LaunchApplication("named", {"sh", "-c", probe, out, "one", "two words"});
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_TRUE(sigismember(&after, SIGTERM)) << "the caller's mask is its own";
  EXPECT_TRUE(WaitForReport("named"));
  stop.store(true);
  busy.join();
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(Content(out),
            "0\n1\n2\n<one><two words>1 unset kept\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  EXPECT_EQ(log_.Count("Executing args:"), 1);
  EXPECT_EQ(log_.Count(" 'two words'"), 1);
}

TEST_F(LauncherTest, ReportsWhatCannotBeExecutedExactlyOnce) {
  const std::string text = files_.Write("text", "no program");
  for (const std::string& name :
       {std::string("/no/such/program"), std::string("no-such-program"), std::string(), text, files_.Path().string()}) {
    const std::string app = "app of " + name;
    launcher_.LaunchApplication(app, {name, "argument"});
    EXPECT_TRUE(WaitForReport(app)) << name;
    EXPECT_EQ(log_.Count("Error: Failed to execute process '" + name + "'"), 1);
    EXPECT_EQ(Reported(app), 1U);
  }
  launcher_.LaunchApplication("nothing", {});
  EXPECT_EQ(Reported("nothing"), 0U);
}

TEST_F(LauncherTest, FindsProgramsAsTheShellDoes) {
  const std::string out = files_.Path() / "out";
  const std::string script = files_.Write("dir/qel-script", "echo \"$0 $1\" >" + out + "\n");
  chmod(script.c_str(), 0755);
  files_.Write("closed/qel-script", "");  // not executable: the search goes on
  const std::string path = std::getenv("PATH");
  setenv("PATH", ("/no/such:" + (files_.Path() / "closed").string() + ":" + (files_.Path() / "dir").string()).c_str(),
         1);
  launcher_.LaunchApplication("script", {"qel-script", "argument"});
  setenv("PATH", path.c_str(), 1);
  EXPECT_TRUE(WaitForReport("script"));
  EXPECT_EQ(Content(out), script + " argument\n");
}

TEST_F(LauncherTest, ForgetsAProgramThatShowedAWindow) {
  const std::string out = files_.Path() / "pid";
  launcher_.LaunchApplication(
      "shown", {"sh", "-c", "echo $$ >" + out + ".new; mv " + out + ".new " + out + "; exec sleep 1000"});
  ASSERT_TRUE(WaitUntil([&] { return !Content(out).empty(); }));
  const pid_t pid = std::stoi(Content(out));
  launched_.Erase(pid);
  kill(pid, SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return kill(pid, 0) != 0; })) << "not reaped";
  launcher_.LaunchApplication("next", {"true"});
  EXPECT_TRUE(WaitForReport("next"));
  EXPECT_EQ(Reported("shown"), 0U);
}

// Fifty programs end in one moment. Signals that coincide are one delivery, which reaps one child: what was left behind
// is reported when the next child ends.
TEST_F(LauncherTest, ReportsEveryProgramOfABurstOnce) {
  constexpr std::size_t kPrograms = 50;
  const std::string gate = files_.Path() / "gate";
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  const FileDescriptor opened(open(gate.c_str(), O_RDWR | O_CLOEXEC));
  const auto name = [](std::size_t i) { return "program " + std::to_string(i) + "."; };
  for (std::size_t i = 0; i < kPrograms; ++i) {
    launcher_.LaunchApplication(name(i), {"sh", "-c", "read line <" + gate});
  }
  const std::string lines(kPrograms, '\n');
  ASSERT_EQ(write(opened.Get(), lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  const auto all_reported = [&] {
    return host_.Sent(kRmvRunByPath).size() >= kPrograms &&
           std::ranges::all_of(std::views::iota(std::size_t{0}, kPrograms),
                               [&](std::size_t i) { return Reported(name(i)) > 0; });
  };
  if (!WaitUntil(all_reported, std::chrono::seconds(1))) {
    launcher_.LaunchApplication("later", {"true"});
  }
  EXPECT_TRUE(WaitUntil(all_reported));
  for (std::size_t i = 0; i < kPrograms; ++i) {
    EXPECT_EQ(Reported(name(i)), 1U) << i;
  }
}

}  // namespace
}  // namespace qel::test
