// The console through its command line, with a small agent as its command.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "gate_test.h"
#include "support/temp_dir.h"

namespace qel::host::test {
namespace {

struct Ran {
  int status = -1;
  std::string output;  // and errors
};

Ran Shell(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  Ran ran;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) ran.output += static_cast<char>(c);
  ran.status = WEXITSTATUS(pclose(pipe));
  return ran;
}

// Uses the fixture only to find out whether the device can be had here; tdlhost makes a namespace of its own.
class TdlHostTest : public GateTest {
 protected:
  void SetUp() override {
    GateTest::SetUp();
    host_.Stop();
  }
  Ran Run(const std::string& options, const std::string& requests, const std::string& client = "") {
    const std::string input = directory_.Write("requests", requests);
    return Shell("cd " + folder_ + "; " + TDLHOST + " " + options + " -- " + GATE_CLIENT + " " + client + " < " +
                 input);
  }

  qel::test::TempDir directory_;
  const std::string folder_ = directory_.Path();
};

TEST_F(TdlHostTest, ShowsMessagesAndTakesRequests) {
  const Ran ran = Run("--json --strict --icons icons",
                      "wait 30 finish-enum\nmenu\nwindows\nicon 0x46 a.png\nstart Ed /doc\n"
                      "hide 7 --except 1 --context 3 4\nraw 0102\nbogus\nreset\nwait 30 tool-state\nwindows\nquit 7\n");
  EXPECT_EQ(ran.status, 0) << ran.output;
  std::map<std::string, nlohmann::json> messages;
  std::istringstream lines(ran.output);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] != '{') continue;
    const auto json = nlohmann::json::parse(line);
    messages.emplace(json.value("message", json.value("reply", "")) + json.value("command", ""), json);
  }
  EXPECT_EQ(messages["app-menu"]["entries"][0]["location"], "Office");
  EXPECT_EQ(messages["menu"]["entries"][0]["name"], "Ed");
  EXPECT_EQ(messages.count("fetchstart-app (code 106, 1064 bytes)"), 1U) << ran.output;
  // Titles name the application's own window, which is not the reported one where the window manager adds frames.
  const nlohmann::json windows = messages["applications"]["applications"][0]["windows"];
  EXPECT_EQ(windows[0]["title"], "of the only window") << ran.output;
  EXPECT_EQ(windows[0]["hidden"], true);
  EXPECT_EQ(windows[1]["title"], "by its number");
  EXPECT_NE(ran.output.find(R"({"reply":"applications","applications":[]})"), std::string::npos) << "after the reset";
  EXPECT_NE(ran.output.find("command 108 of "), std::string::npos);
  EXPECT_NE(ran.output.find("unknown request 'bogus'"), std::string::npos);
  EXPECT_NE(ran.output.find("0 violation(s), 4 remark(s)"), std::string::npos);
  std::string magic(4, '\0');
  std::ifstream(folder_ + "/a.png").read(magic.data(), 4);
  EXPECT_EQ(magic, "\x89PNG");
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/icons/4-menu-0.svg"));
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/icons/5-window-46.png"));
}

TEST_F(TdlHostTest, EndsWithTheRightStatus) {
  const Ran bad = Run("--strict", "quit 7\n", "bad");
  EXPECT_EQ(bad.status, 3);
  EXPECT_NE(bad.output.find("VIOLATION: guest command: the reserved word is 0x5"), std::string::npos) << bad.output;
  EXPECT_NE(bad.output.find("layout 'inline' does not fit the probe's result 0"), std::string::npos);
  EXPECT_EQ(Run("", "quit 7\n", "bad").status, 0);
  EXPECT_EQ(Run("--refuse-opens", "").status, 9);
  EXPECT_EQ(Run("", "quit-host\n").status, 128 + 15);
  EXPECT_EQ(Shell(std::string(TDLHOST) + " /nowhere/program </dev/null").status, 127);
  EXPECT_EQ(Shell(std::string(TDLHOST) + " --nonsense sh </dev/null").status, 2);
}

}  // namespace
}  // namespace qel::host::test
