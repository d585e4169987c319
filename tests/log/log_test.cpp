#include "log/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {
passwd* g_user = nullptr;
}

// Goes before the C library's: what is known of the user is the test's matter.
extern "C" passwd* getpwuid(uid_t /*user*/) {
  return g_user;
}

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
  setenv("TZ", "XYZ-5:45", 1);  // east of Greenwich by 5:45
  tzset();
  const std::time_t now = std::time(nullptr) + (5 * 60 + 45) * 60;
  const std::pair<int, std::string> cases[] = {{0, "F "},          {1, "W "},  {2, "I "},
                                               {3, "D "},          {4, "T "},  {5, "O[(]5[)] "},
                                               {15, "O[(]15[)] "}, {16, "F "}, {-3, "O[(]-3[)] "}};
  for (const auto& [level, letter] : cases) {
    qel::LogMessage("", "qeltdl", level, "text %d", 7);
  }
  unsetenv("TZ");
  tzset();
  std::tm local{};
  gmtime_r(&now, &local);
  char minute[32];
  std::strftime(minute, sizeof minute, "%m-%d %H:%M", &local);
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), std::size(cases));
  char thread[32];
  std::snprintf(thread, sizeof thread, "%x", static_cast<unsigned>(gettid()));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], testing::MatchesRegex(minute + std::string(":[0-9]{2}[.][0-9]{3} ") + cases[i].second +
                                                "/qeltdl:" + std::to_string(getpid()) + ":" + thread + "/ text 7"));
  }
}

TEST_F(LogTest, ThresholdDecidesExceptForErrors) {
  EXPECT_EQ(qel::GetLogLevel(), 2);
  qel::SetLogLevel(-1);
  EXPECT_EQ(qel::GetLogLevel(), 1);
  qel::LogInfo("m", "no");
  qel::LogWarning("m", "yes");
  qel::SetLogLevel(0);
  qel::LogWarning("m", "no");
  qel::LogError("m", "yes");
  EXPECT_EQ(Lines().size(), 2u);
}

// A stranger's text neither begins a line of its own nor reaches a terminal as a command.
TEST_F(LogTest, ControlCharactersAreWrittenVisibly) {
  qel::LogInfo("m", "%s", "");
  const std::size_t start = Lines().at(0).size();
  const std::size_t room = 4094 - start;
  const std::string fill(room - 3, 'a');
  std::string escapes;
  for (std::size_t i = 0; i < room / 4; ++i) {
    escapes += "\\x0A";
  }
  const std::string rows[][2] = {
      {"plain \u00e9\u20ac\U0001F600 \\x0A \xC2", "plain \u00e9\u20ac\U0001F600 \\x0A \xC2"},
      {"a\n01-01 00:00:00.000 F /qeltdl:1:1/ forged", "a\\x0A01-01 00:00:00.000 F /qeltdl:1:1/ forged"},
      {"\x1B]0;x\x07\t\x1F\x7F\r", "\\x1B]0;x\\x07\\x09\\x1F\\x7F\\x0D"},
      {"\u0080\u009b1m\u009f\u00a0", "\\xC2\\x80\\xC2\\x9B1m\\xC2\\x9F\u00a0"},
      {"closed\n", "closed\n"},
      {"closed\n\n", "closed\\x0A\n"},
      {fill + "abc", fill + "abc"},
      {fill + "\x1B" + "bc", fill},  // the escape does not fit
      {fill + "ab\n", fill + "ab\n"},
      {fill + "abc\n", fill + "abc"},
      {fill + std::string(1000, 'a'), fill + "aaa"},
      {std::string(1, '\x1B') + fill + "b", "\\x1B" + fill.substr(0, room - 4)},
      {"\u009b" + std::string(room - 9, 'a') + "\x1B\n", "\\xC2\\x9B" + std::string(room - 9, 'a') + "\n"},
      {std::string(5000, '\n'), escapes},
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

// Removed, or renamed with another one in its place at once.
TEST_F(LogTest, TheFileOfThatNameIsFollowed) {
  const auto open_descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  umask(077);
  qel::LogInfo("m", "first");
  const auto before = open_descriptors();
  for (const bool is_replaced : {false, true}) {
    fs::rename(File(), directory_.Path() / "old");
    if (is_replaced) {
      directory_.Write("corvessan.log", "");
    }
    EXPECT_TRUE(qel::test::WaitUntil([&] {
      qel::LogInfo("m", "again");
      return fs::exists(File()) && fs::file_size(File()) > 0;
    }));
    EXPECT_EQ(fs::status(File()).permissions(), fs::perms{0666}) << "the agents of all users write into it";
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LogTest, AFullFifoInItsPlaceHoldsNobodyUp) {
  ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
  const int reader = open(File().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  alarm(20);  // ends this program
  for (int i = 0; i < 100; ++i) {
    qel::LogInfo("m", "%s", std::string(4000, 'a').c_str());
  }
  alarm(0);
  char first = 0;
  EXPECT_EQ(read(reader, &first, 1), 1) << "the FIFO was not used";
  close(reader);
}

// Each process moves its log once, so each case here is a process, with a root directory of its own.
TEST_F(LogTest, AnUnusableDirectoryIsReplaced) {
  if (geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr);
    GTEST_SKIP() << "NOT TESTED: only root can change its root directory";
  }
  constexpr int kInHome = 1;
  constexpr int kInRoot = 2;
  const struct {
    std::string home;  // empty: unknown
    bool in_handler;
    int files;
  } kCases[] = {{"/home", false, kInHome}, {"/home", true, 0}, {"", false, kInRoot}, {"/none", false, kInRoot}};
  for (const auto& test : kCases) {
    const qel::test::TempDir root;
    fs::create_directory(root.Path() / "home");
    const auto log_in_root = [&] {
      std::string home = test.home;
      passwd user{};
      user.pw_dir = home.data();
      g_user = home.empty() ? nullptr : &user;
      qel::SetLogDirectory("/none");
      std::optional<qel::SignalHandlerScope> scope;
      if (test.in_handler) {
        scope.emplace();
      }
      const bool moved = chroot(root.Path().c_str()) == 0;
      qel::LogInfo("m", "text");
      _exit(!moved ? -1
                   : (fs::exists("/home/.corvessan/corvessan.log") ? kInHome : 0) +
                         (fs::exists("/corvessan.log") ? kInRoot : 0));
    };
    EXPECT_EXIT(log_in_root(), testing::ExitedWithCode(test.files), "") << test.home;
  }
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveOrLoseALine) {
  constexpr int kThreads = 64;
  constexpr int kLines = 200;
  const auto text = [](int thread, int line) {
    return std::to_string(thread) + ":" + std::to_string(line) + ":" + std::string(50 + 10 * std::size_t(thread), 'x');
  };
  qel::LogInfo("m", "the file is open before they start");
  std::vector<std::thread> threads;
  std::multiset<std::string> expected;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([=] {
      for (int i = 0; i < kLines; ++i) {
        qel::LogInfo("m", "%s", text(t, i).c_str());
      }
    });
    for (int i = 0; i < kLines; ++i) {
      expected.insert(text(t, i));
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::multiset<std::string> written;
  for (const std::string& line : Lines()) {
    written.insert(line.substr(line.find("/ ") + 2));
  }
  written.erase("the file is open before they start");
  EXPECT_TRUE(written == expected);
}

// A handler interrupts threads wherever they are, inside localtime_r() and vsnprintf() too; it must neither deadlock
// nor garble a line.
TEST_F(LogTest, SignalHandlerMayLogAtAnyMoment) {
  static std::atomic<int> handled;
  handled = 0;
  struct sigaction action {};
  action.sa_handler = [](int) {
    const qel::SignalHandlerScope scope;
    qel::LogInfo("m", "handler");
    handled.fetch_add(1);
  };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval fast{{0, 50}, {0, 50}};
  setitimer(ITIMER_REAL, &fast, nullptr);
  int lines = 0;
  while (handled < 2000) {
    qel::LogInfo("m", "body");
    ++lines;
  }
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  int bodies = 0;
  for (const std::string& line : Lines()) {
    const bool body = line.ends_with("/ body");
    bodies += body ? 1 : 0;
    ASSERT_TRUE(body || line.ends_with("/ handler")) << line;
  }
  EXPECT_EQ(bodies, lines);
}

}  // namespace
