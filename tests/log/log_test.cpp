#include "log/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qel-log-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    qel::SetLogDirectory(directory_.c_str());
    qel::SetLogLevel(2);
  }
  void TearDown() override { fs::remove_all(directory_); }

  fs::path File() const { return directory_ / "corvessan.log"; }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream file(File());
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  fs::path directory_;
};

TEST_F(LogTest, LineCarriesTimeLevelModuleProcessAndThread) {
  struct Case {
    int level;
    const char* letter;
  };
  const Case cases[] = {{0, "F "},        {1, "W "},          {2, "I "},  {3, "D "},         {4, "T "},
                        {5, "O[(]5[)] "}, {15, "O[(]15[)] "}, {16, "F "}, {-3, "O[(]-3[)] "}};
  for (const Case& c : cases) {
    qel::LogMessage("", "qeltdl", c.level, "text %d", 7);
  }
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), std::size(cases));
  char thread[32];
  std::snprintf(thread, sizeof thread, "%x", static_cast<unsigned>(gettid()));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], testing::MatchesRegex("[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} " +
                                                std::string(cases[i].letter) + "/qeltdl:" + std::to_string(getpid()) +
                                                ":" + thread + "/ text 7"));
  }
}

TEST_F(LogTest, TimeIsLocal) {
  setenv("TZ", "XYZ-5:45", 1);  // east of Greenwich by 5:45
  tzset();
  const time_t before = time(nullptr) + (5 * 60 + 45) * 60;
  qel::LogInfo("m", "x");
  unsetenv("TZ");
  tzset();
  tm expected{};
  gmtime_r(&before, &expected);
  char text[32];
  std::strftime(text, sizeof text, "%m-%d %H:%M", &expected);
  EXPECT_EQ(Lines().at(0).substr(0, 11), text);
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

TEST_F(LogTest, LongLineIsCutAndErrnoKept) {
  errno = EDOM;
  qel::LogInfo("m", "%s", std::string(5000, 'a').c_str());
  EXPECT_EQ(errno, EDOM);
  ASSERT_EQ(Lines().size(), 1u);
  EXPECT_EQ(Lines()[0].size(), 4094u);
}

// A stranger's text neither begins a line of its own nor reaches a terminal as a command.
TEST_F(LogTest, ControlCharactersAreWrittenVisibly) {
  qel::LogInfo("m", "%s", "");
  const std::size_t start = Lines().at(0).size();
  const std::size_t room = 4094 - start;
  const std::string fill(room - 3, 'a');
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
      {std::string(1, '\x1B') + fill + "b", "\\x1B" + fill.substr(0, room - 4)},
      {"\u009b" + std::string(room - 9, 'a') + "\x1B\n", "\\xC2\\x9B" + std::string(room - 9, 'a') + "\n"},
      {std::string(5000, '\n'),
       [&] {
         std::string escapes;
         while (escapes.size() + 4 <= room) {
           escapes += "\\x0A";
         }
         return escapes;
       }()},
  };
  for (const auto& [text, shown] : rows) {
    fs::resize_file(File(), 0);
    qel::LogInfo("m", "%s", text.c_str());
    std::ostringstream written;
    written << std::ifstream(File()).rdbuf();
    EXPECT_EQ(written.str().substr(start), shown + "\n");
  }
}

TEST_F(LogTest, RemovedFileIsCreatedAnewForEveryone) {
  umask(077);
  qel::LogInfo("m", "first");
  fs::remove(File());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!fs::exists(File()) && std::chrono::steady_clock::now() < deadline) {
    qel::LogInfo("m", "again");
  }
  struct stat status {};
  ASSERT_EQ(stat(File().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveOrLoseALine) {
  constexpr int kThreads = 64;
  constexpr int kLines = 200;
  qel::LogInfo("m", "the file is open before they start");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        qel::LogInfo("m", "%d:%d:%s", t, i, std::string(static_cast<std::size_t>(50 + t * 10), 'x').c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<std::string> texts;
  auto lines = Lines();
  lines.erase(lines.begin());
  for (const std::string& line : lines) {
    const std::size_t text = line.find("/ ") + 2;
    const std::size_t filler = line.find('x', text);
    ASSERT_NE(filler, std::string::npos) << line;
    const auto thread = static_cast<std::size_t>(std::stoi(line.substr(text)));
    EXPECT_EQ(line.substr(filler), std::string(50 + thread * 10, 'x'));
    texts.insert(line.substr(text, filler - text));
  }
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kLines));
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
