#include "app/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"

namespace qel::test {
namespace {

struct Parsed {
  Options options;
  int level;
};

Parsed Parse(std::vector<std::string> words) {
  const LogCapture log;  // level 2
  std::vector<char*> argv{const_cast<char*>("tdl")};
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // makes getopt() start afresh
  opterr = 0;
  const Options options = ParseCommandLine(static_cast<int>(words.size()) + 1, argv.data());
  return {options, GetLogLevel()};
}

TEST(OptionsTest, OutOfRangeValuesChangeNothing) {
  const struct {
    std::vector<std::string> words;
    int period, level;
  } rows[] = {
      {{}, 500, 2},
      {{"-r", "99"}, 500, 2},
      {{"-r", "100"}, 100, 2},
      {{"-r1000"}, 1000, 2},
      {{"-r", "1001"}, 500, 2},
      {{"-r", "200", "-r", "x"}, 200, 2},
      {{"-r", "99999999999999999999"}, 500, 2},
      {{"-l", "0"}, 500, 0},
      {{"-l", "3"}, 500, 3},
      {{"-l", "4"}, 500, 2},
      {{"-l", "-1"}, 500, 2},
      {{"-l", "4294967296"}, 500, 2},
      {{"-v", "-l", "1"}, 500, 1},
      {{"-l", "1", "-v"}, 500, 3},
      {{"-x", "word", "-r", "250"}, 250, 2},
      {{"-r"}, 500, 2},
  };
  for (const auto& row : rows) {
    const Parsed parsed = Parse(row.words);
    const std::string words = testing::PrintToString(row.words);
    EXPECT_EQ(parsed.options.poll_period_ms, row.period) << words;
    EXPECT_EQ(parsed.level, row.level) << words;
    EXPECT_FALSE(parsed.options.help) << words;
  }
}

TEST(OptionsTest, HelpShowsTheLevelInForceAndEndsTheParsing) {
  testing::internal::CaptureStdout();
  const Parsed parsed = Parse({"-l", "1", "-h", "-l", "3"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Corvessan Tandrel Tool usage:\n"
            " tdl [options]\n"
            "Options:\n"
            " -h   : This help\n"
            " -r   : Service poll period (in milliseconds) [100, 1000], default: 500\n"
            " -l   : Logging level [0, 3], default 1\n"
            " -v   : Verbose logging, set log level to 3\n");
  EXPECT_TRUE(parsed.options.help);
  EXPECT_EQ(parsed.level, 1);
}

}  // namespace
}  // namespace qel::test
