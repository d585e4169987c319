// The real device file. This test writes addresses of requests to it, and also runs tdlhost with a small agent as its
// command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/host.h"
#include "host/mount_namespace.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::host {
namespace {

// The reason why the device file is not available here. main() sets it before the first thread starts.
std::string namespace_error;  // NOLINT

class GateTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error = namespace_error;
    if (error.empty() && host_.Start(error)) return;
    // Nobody notices a skipped test in CI, so the test fails there.
    if (std::getenv("CI") != nullptr) FAIL() << error;
    GTEST_SKIP() << error;
  }

  // Returns errno, or 0 when the device took the request.
  static int Write(std::uint64_t bytes, std::size_t size = 4) {
    const int device = open(GateDevice::kPath, O_WRONLY | O_CLOEXEC);
    const int error = write(device, &bytes, size) < 0 ? errno : 0;
    close(device);
    return error;
  }

  // Submits the message "enumeration finished". `changes` are indices of words in the request and their new values.
  int Submit(std::initializer_list<std::pair<std::size_t, std::uint32_t>> changes = {}) {
    const auto base = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(memory_));
    // Code, status, number of buffers, reserved; the two buffers; the block; the reply.
    const std::uint32_t request[22] = {0x8302, 0, 2 << 16, 0, base + 48, 0, 20, 0, base + 68, 0, 20, 1, 113, 2};
    std::ranges::copy(request, memory_);
    for (const auto& [place, value] : changes) memory_[place] = value;
    return Write(base);
  }

  Host host_;
  std::uint32_t* const memory_ = static_cast<std::uint32_t*>(
      mmap(nullptr, 1 << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
};

// The session tests check the other faults, and valid requests.
TEST_F(GateTest, SimulatesFaults) {
  host_.faults().Add({.action = FaultAction::kGarbage});
  host_.faults().Add({.action = FaultAction::kWriteError, .error = ENXIO});
  EXPECT_EQ(Submit(), 0);
  EXPECT_NE(memory_[17], 0U);
  EXPECT_EQ(Submit(), ENXIO);
}

TEST_F(GateTest, SurvivesBadWrites) {
  EXPECT_EQ(Write(0x10), EFAULT);
  EXPECT_EQ(Write(0, 8), EINVAL);
  EXPECT_EQ(Submit({{6, 0xFFFFFFF0}}), EINVAL) << "the size of a buffer is too large";
  EXPECT_EQ(Submit({{6, 32 << 20}}), EFAULT) << "the buffer ends after the mapped memory";
  EXPECT_EQ(Submit({{2, 65 << 16}}), EINVAL) << "too many buffers";
  EXPECT_EQ(host_.model().Snapshot().violations, 5U);
}

// Uses the fixture only to check that the device is available. tdlhost enters a namespace of its own.
class TdlHostTest : public GateTest {
 protected:
  // Runs tdlhost, stores its output in output_, and returns the exit status.
  int Run(const std::string& arguments, const std::string& requests) {
    host_.Stop();
    const std::string input = directory_.Write("requests", requests);
    const std::string command = "cd " + folder_ + "; " TDLHOST " " + arguments + " < " + input + " > output 2>&1";
    const int status = std::system(command.c_str());
    std::ifstream output(folder_ + "/output");
    output_.assign(std::istreambuf_iterator<char>(output), {});
    return WEXITSTATUS(status);
  }
  bool Prints(const std::string& text) const { return output_.find(text) != std::string::npos; }

  test::TempDir directory_;
  const std::string folder_ = directory_.Path();
  std::string output_;
};

TEST_F(TdlHostTest, ShowsMessagesAndTakesRequests) {
  EXPECT_EQ(Run("--json --strict --icons icons " GATE_CLIENT,
                "wait 30 finish-enum\nmenu\nwindows\nicon 0x46 a.png\nstart Ed /doc\n"
                "hide 7 --except 1 --context 3 4\nraw 0102\nbogus\nreset\nwait 30 tool-state\nwindows\nquit 7\n"),
            0);
  std::map<std::string, nlohmann::json> messages;
  std::istringstream lines(output_);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with('{')) continue;
    const auto json = nlohmann::json::parse(line);
    messages.emplace(json.value("message", json.value("reply", "")), json);
  }
  EXPECT_EQ(messages["app-menu"]["entries"][0]["location"], "Office");
  const nlohmann::json windows = messages["applications"]["applications"][0]["windows"];
  EXPECT_EQ(windows[0]["title"], "A \"title\"");
  EXPECT_EQ(windows[0]["hidden"], true);
  EXPECT_EQ(windows[1]["title"], "by its number");
  for (const char* const text : {R"({"reply":"applications","applications":[]})", "start-app (code 106, 1064 bytes)",
                                 "unknown request 'bogus'", "0 violation(s), 1 remark(s)"}) {
    EXPECT_TRUE(Prints(text)) << text << output_;
  }
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/a.png"));
  EXPECT_TRUE(std::filesystem::exists(folder_ + "/icons/4-menu-0.svg"));
}

TEST_F(TdlHostTest, EndsWithTheRightStatus) {
  EXPECT_EQ(Run("--strict " GATE_CLIENT " bad", "quit 7\n"), 3);
  EXPECT_TRUE(Prints("VIOLATION: guest command: the reserved word is 0x5")) << output_;
  EXPECT_TRUE(Prints("layout 'inline' does not fit the probe's result 0")) << output_;
  EXPECT_EQ(Run("--refuse-opens -- " GATE_CLIENT, ""), 9);
  EXPECT_EQ(Run(GATE_CLIENT, "quit-host\n"), 128 + 15);
}

// The client fetches all the time. With --fetches, its messages are printed while the user types.
TEST_F(TdlHostTest, MessagesDoNotDamageTheTypedLine) {
  host_.Stop();
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    if (chdir(folder_.c_str()) == 0) execl(TDLHOST, TDLHOST, "--fetches", GATE_CLIENT, nullptr);
    _exit(99);
  }
  fcntl(terminal, F_SETFL, O_NONBLOCK);
  std::size_t typed = 0;  // the size of the output before the last keys
  const auto shows = [&](const std::string& text) {
    return test::WaitUntil([&] {
      char bytes[4096];
      for (ssize_t size = 0; (size = read(terminal, bytes, sizeof bytes)) > 0;) {
        output_.append(bytes, static_cast<std::size_t>(size));
      }
      return output_.find(text, typed) != std::string::npos;
    });
  };
  const auto type = [&](const std::string& keys) {
    typed = output_.size();
    EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  };
  const std::string red = "\033[31mtdlhost: ";
  EXPECT_TRUE(shows("finish-enum")) << output_;
  type("frobnicate\n");
  EXPECT_TRUE(shows(red + "unknown request 'frobnicate'; 'help' lists them\033[0m"));
  type("hide abc\n");
  EXPECT_TRUE(shows(red + "hide: 'abc' is not a number; expected: hide PID"));
  type("start E");
  EXPECT_TRUE(shows("room=4096\r\ntdlhost> start E")) << "the typed line is printed again after the message";
  type("\t");
  EXPECT_TRUE(shows("tdlhost> start Ed ")) << "Tab completes the name from the menu";
  type("\n");
  EXPECT_TRUE(shows("queued start-app"));
  typed = output_.find("queued start-app", typed);
  EXPECT_TRUE(shows("tdlhost> ")) << "before it the terminal itself would take the Ctrl-D";
  type("\4");
  EXPECT_TRUE(shows("the command ended with status 143"));
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
  close(terminal);
  std::istringstream lines(output_);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t erased = line.rfind("\033[K");  // the terminal erases what is before this
    const std::string left = line.substr(erased == std::string::npos ? 0 : erased);
    EXPECT_TRUE(left.find("tdlhost> ") == std::string::npos || left.find(" fetch ") == std::string::npos) << left;
  }
}

}  // namespace
}  // namespace qel::host

// Runs the tests in a private mount namespace.
int main(int argc, char** argv) {
  qel::host::EnterPrivateMountNamespace(qel::host::namespace_error);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
