#include "app/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"

namespace qel::test {
namespace {

TEST(OptionsTest, OutOfRangeValuesChangeNothing) {
  const struct {
    std::vector<std::string> words;
    int period, level;
    bool help = false;
  } rows[] = {
      {{"-r", "99"}, 500, 2},
      {{"-r", "100"}, 100, 2},
      {{"-r1000"}, 1000, 2},
      {{"-r", "1001"}, 500, 2},
      {{"-r", "200", "-r", "x"}, 200, 2},
      {{"-l", "0"}, 500, 0},
      {{"-l", "4"}, 500, 2},
      {{"-l", "-1"}, 500, 2},
      {{"-l", "4294967296"}, 500, 2},
      {{"-l", "1", "-v", "-r"}, 500, 3},
      {{"-x", "word", "-v", "-r", "250", "-l", "1"}, 250, 1},
      {{"-l", "1", "-h", "-l", "3"}, 500, 1, true},  // options after -h are ignored
  };
  for (const auto& row : rows) {
    const LogCapture log;  // sets level 2
    std::vector<std::string> words = row.words;
    std::vector<char*> argv{const_cast<char*>("tdl")};
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    optind = 0;  // getopt() starts again at the first word
    testing::internal::CaptureStdout();
    const Options options = ParseCommandLine(static_cast<int>(words.size()) + 1, argv.data());
    const std::string usage = testing::internal::GetCapturedStdout();
    SCOPED_TRACE(testing::PrintToString(words));
    EXPECT_EQ(options.help, row.help);
    EXPECT_EQ(usage.ends_with(" -v   : Verbose logging, set log level to 3\n"), row.help);
    EXPECT_EQ(options.poll_period_ms, row.period);
    EXPECT_EQ(GetLogLevel(), row.level);
  }
}

}  // namespace
}  // namespace qel::test
