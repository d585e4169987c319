#include "log/log.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

class LogTest : public testing::Test {
 protected:
  LogTest() {
    qel::SetLogDirectory(directory_.Path().c_str());
    qel::SetLogLevel(2);
  }

  fs::path File() const { return directory_.Path() / "corvessan.log"; }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream file(File());
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  qel::test::TempDir directory_;
};

TEST_F(LogTest, LineCarriesLocalTimeLevelModuleProcessAndThread) {
  { const qel::SignalHandlerScope ended; }  // after its end the time zone is read again
  setenv("TZ", "XYZ-5:45", 1);              // east of Greenwich by 5:45
  tzset();
  const std::time_t now = std::time(nullptr) + (5 * 60 + 45) * 60;
  char minute[32];
  std::strftime(minute, sizeof minute, "%m-%d %H:%M", std::gmtime(&now));
  char process[64];
  std::snprintf(process, sizeof process, "%d:%x", getpid(), static_cast<unsigned>(gettid()));
  qel::LogMessage("", "qeltdl", 1, "text %d", 7);
  EXPECT_THAT(Lines().back(),
              testing::MatchesRegex(minute + std::string(":[0-9]{2}[.][0-9]{3} W /qeltdl:") + process + "/ text 7"));
  unsetenv("TZ");
  tzset();
}

TEST_F(LogTest, ThresholdDecidesExceptForErrors) {
  qel::SetLogLevel(-1);
  qel::LogInfo("m", "no");
  qel::LogWarning("m", "yes");
  qel::SetLogLevel(0);
  qel::LogWarning("m", "no");
  qel::LogError("m", "yes");
  EXPECT_EQ(Lines().size(), 2u);
}

// Text from outside must not start a new line or send commands to a terminal.
TEST_F(LogTest, ControlCharactersAreWrittenVisibly) {
  qel::LogInfo("m", "%s", "");
  const std::size_t start = Lines().at(0).size();
  const std::size_t room = 4094 - start;
  const std::string fill(room - 3, 'a');
  const std::string rows[][2] = {
      {"a\n01-01 00:00:00.000 F /qeltdl:1:1/ forged", "a\\x0A01-01 00:00:00.000 F /qeltdl:1:1/ forged"},
      {fill + "\x1B" + "bc", fill},  // no room for the four characters of the escape
      {fill + "ab\n", fill + "ab\n"},
      {fill + "abc\n", fill + "abc"},
      {fill + std::string(1000, 'a'), fill + "aaa"},
      {std::string(1, '\x1B') + fill + "b", "\\x1B" + fill.substr(0, room - 4)},
      {"\u009b" + std::string(room - 9, 'a') + "\x1B\n", "\\xC2\\x9B" + std::string(room - 9, 'a') + "\n"},
  };
  for (const auto& [text, shown] : rows) {
    fs::resize_file(File(), 0);
    errno = EDOM;
    qel::LogInfo("m", "%s", text.c_str());
    EXPECT_EQ(errno, EDOM);
    std::ostringstream written;
    written << std::ifstream(File()).rdbuf();
    EXPECT_EQ(written.str().substr(start), shown + "\n");
  }
}

// A process changes its log directory only once. So each case is a process with its own root directory and users.
TEST_F(LogTest, WithoutAUsableHomeTheLogIsInTheRootDirectory) {
  if (geteuid() != 0 && std::getenv("CI") == nullptr) {
    GTEST_SKIP() << "NOT TESTED: only root can change its root directory";
  }
  for (const char* const users : {"", "me:x:0:0::/none:\n"}) {
    const qel::test::TempDir root;
    root.Write("etc/passwd", users);
    const auto log_in_root = [&] {
      qel::SetLogDirectory("/none");
      const bool moved = chroot(root.Path().c_str()) == 0;
      qel::LogInfo("m", "text");
      _exit(moved && fs::exists("/corvessan.log") ? 0 : 1);
    };
    EXPECT_EXIT(log_in_root(), testing::ExitedWithCode(0), "") << users;
  }
}

// A signal handler can interrupt a thread anywhere, also inside localtime_r() and vsnprintf(). It must not cause a
// deadlock or damage a line.
TEST_F(LogTest, LinesOfThreadsAndSignalHandlersAreComplete) {
  static std::atomic<int> handled;
  signal(SIGALRM, [](int) {
    const qel::SignalHandlerScope scope;
    qel::LogInfo("m", "handler");
    ++handled;
  });
  qel::LogInfo("m", "handler");  // the file is open before the threads start
  const itimerval fast{{0, 50}, {0, 50}};
  setitimer(ITIMER_REAL, &fast, nullptr);
  std::set<std::string> texts{"handler"};
  std::vector<std::jthread> threads;
  std::atomic<std::size_t> written = 1;
  for (std::size_t i = 0; i < 16; ++i) {
    threads.emplace_back([&, text = *texts.emplace(50 + 10 * i, 'x').first] {
      while (handled < 2000) {
        qel::LogInfo("m", "%s", text.c_str());
        ++written;
      }
    });
  }
  threads.clear();
  alarm(0);
  const std::vector<std::string> lines = Lines();
  EXPECT_EQ(lines.size(), written + static_cast<std::size_t>(handled));
  for (const std::string& line : lines) {
    ASSERT_TRUE(texts.contains(line.substr(line.find("/ ") + 2))) << line;
  }
}

}  // namespace
