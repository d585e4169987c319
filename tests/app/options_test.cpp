#include "app/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "log/log.h"

namespace {

qel::Options Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "tdl");
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // makes getopt() start afresh
  opterr = 0;
  return qel::ParseCommandLine(static_cast<int>(words.size()), argv.data());
}

TEST(OptionsTest, OutOfRangeValuesChangeNothing) {
  struct Case {
    std::vector<std::string> words;
    int period;
    int level;
  };
  const Case cases[] = {
      {{}, 500, 2},
      {{"-r", "99"}, 500, 2},
      {{"-r", "100"}, 100, 2},
      {{"-r1000"}, 1000, 2},
      {{"-r", "1001"}, 500, 2},
      {{"-r", "200", "-r", "x"}, 200, 2},
      {{"-r", "-200"}, 500, 2},
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
  for (const Case& c : cases) {
    qel::SetLogLevel(2);
    const qel::Options options = Parse(c.words);
    const std::string words = testing::PrintToString(c.words);
    EXPECT_EQ(options.poll_period_ms, c.period) << words;
    EXPECT_EQ(qel::GetLogLevel(), c.level) << words;
    EXPECT_FALSE(options.help) << words;
  }
}

TEST(OptionsTest, HelpShowsTheLevelInForceAndEndsTheParsing) {
  qel::SetLogLevel(2);
  testing::internal::CaptureStdout();
  const qel::Options options = Parse({"-l", "1", "-h", "-l", "3"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Corvessan Tandrel Tool usage:\n"
            " tdl [options]\n"
            "Options:\n"
            " -h   : This help\n"
            " -r   : Service poll period (in milliseconds) [100, 1000], default: 500\n"
            " -l   : Logging level [0, 3], default 1\n"
            " -v   : Verbose logging, set log level to 3\n");
  EXPECT_TRUE(options.help);
  EXPECT_EQ(qel::GetLogLevel(), 1);
}

}  // namespace
