#include "app/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"

namespace qel::test {
namespace {

Options Parse(std::vector<std::string> words) {
  std::vector<char*> argv{const_cast<char*>("tdl")};
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // makes getopt() start afresh
  opterr = 0;
  return ParseCommandLine(static_cast<int>(words.size()) + 1, argv.data());
}

TEST(OptionsTest, OutOfRangeValuesChangeNothing) {
  const struct {
    std::vector<std::string> words;
    int period, level;
    const char* usage = "";
  } rows[] = {
      {{}, 500, 2},
      {{"-r", "99"}, 500, 2},
      {{"-r", "100"}, 100, 2},
      {{"-r1000"}, 1000, 2},
      {{"-r", "1001"}, 500, 2},
      {{"-r", "200", "-r", "x"}, 200, 2},
      {{"-r", "99999999999999999999"}, 500, 2},
      {{"-l", "0"}, 500, 0},
      {{"-l", "4"}, 500, 2},
      {{"-l", "-1"}, 500, 2},
      {{"-l", "4294967296"}, 500, 2},
      {{"-v", "-l", "1"}, 500, 1},
      {{"-l", "1", "-v"}, 500, 3},
      {{"-x", "word", "-r", "250", "-l", "3"}, 250, 3},
      {{"-r"}, 500, 2},
      {{"-l", "1", "-h", "-l", "3"},
       500,
       1,  // the level in force; what follows is not looked at
       "Corvessan Tandrel Tool usage:\n"
       " tdl [options]\n"
       "Options:\n"
       " -h   : This help\n"
       " -r   : Service poll period (in milliseconds) [100, 1000], default: 500\n"
       " -l   : Logging level [0, 3], default 1\n"
       " -v   : Verbose logging, set log level to 3\n"},
  };
  for (const auto& row : rows) {
    const LogCapture log;  // level 2
    testing::internal::CaptureStdout();
    const Options options = Parse(row.words);
    const std::string words = testing::PrintToString(row.words);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), row.usage) << words;
    EXPECT_EQ(options.help, *row.usage != '\0') << words;
    EXPECT_EQ(options.poll_period_ms, row.period) << words;
    EXPECT_EQ(GetLogLevel(), row.level) << words;
  }
}

}  // namespace
}  // namespace qel::test
