// The real device file, driven by a client that writes addresses of requests, and by the console with a small agent as
// its command.
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

// Set once in main(), before anything makes a thread: why the device file cannot be had here.
std::string namespace_error;  // NOLINT

class GateTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error = namespace_error;
    if (error.empty() && host_.Start(error)) return;
    // Under CI nobody notices a skipped test, so it fails there.
    if (std::getenv("CI") != nullptr) FAIL() << error;
    GTEST_SKIP() << error;
  }

  // The errno value; 0 where all was taken.
  static int Write(std::uint64_t bytes, std::size_t size = 4) {
    const int device = open(GateDevice::kPath, O_WRONLY | O_CLOEXEC);
    const int error = write(device, &bytes, size) < 0 ? errno : 0;
    close(device);
    return error;
  }

  // Submits "the enumeration is finished" with some of the request's words changed: place and value.
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

// Sessions show the other faults, and requests that are as they should be.
TEST_F(GateTest, MisbehavesAsTold) {
  host_.faults().Add({.action = FaultAction::kGarbage});
  host_.faults().Add({.action = FaultAction::kWriteError, .error = ENXIO});
  EXPECT_EQ(Submit(), 0);
  EXPECT_NE(memory_[17], 0U);
  EXPECT_EQ(Submit(), ENXIO);
}

TEST_F(GateTest, SurvivesBadWrites) {
  EXPECT_EQ(Write(0x10), EFAULT);
  EXPECT_EQ(Write(0, 8), EINVAL);
  EXPECT_EQ(Submit({{6, 0xFFFFFFF0}}), EINVAL) << "the size";
  EXPECT_EQ(Submit({{6, 32 << 20}}), EFAULT) << "beyond what is mapped";
  EXPECT_EQ(Submit({{2, 65 << 16}}), EINVAL) << "the number of buffers";
  EXPECT_EQ(host_.model().Snapshot().violations, 5U);
}

// Uses the fixture only to find out whether the device can be had here; tdlhost makes a namespace of its own.
class TdlHostTest : public GateTest {
 protected:
  // The exit status; what the program prints goes into output_.
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

// The client fetches all the time, so with --fetches a message arrives while somebody types.
TEST_F(TdlHostTest, KeepsATerminalsLineInOrder) {
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
  std::size_t typed = 0;  // how much was on the terminal before the last keys
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
  EXPECT_TRUE(shows("finish-enum"));
  type("frobnicate\n");
  EXPECT_TRUE(shows(red + "unknown request 'frobnicate'; 'help' lists them\033[0m"));
  type("hide abc\n");
  EXPECT_TRUE(shows(red + "hide: 'abc' is not a number; expected: hide PID"));
  type("start E");
  EXPECT_TRUE(shows("room=4096\r\ntdlhost> start E")) << "the line is back behind the message";
  type("\t");
  EXPECT_TRUE(shows("tdlhost> start Ed ")) << "an entry of the menu";
  type("\n");
  EXPECT_TRUE(shows("queued start-app"));
  type("\4");
  EXPECT_TRUE(shows("the command ended with status 143"));
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
  close(terminal);
  std::istringstream lines(output_);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t erased = line.rfind("\033[K");  // the prompt, before the message came
    const std::string left = line.substr(erased == std::string::npos ? 0 : erased);
    EXPECT_TRUE(left.find("tdlhost> ") == std::string::npos || left.find(" fetch ") == std::string::npos) << left;
  }
}

}  // namespace
}  // namespace qel::host

// In a mount namespace of its own.
int main(int argc, char** argv) {
  qel::host::EnterPrivateMountNamespace(qel::host::namespace_error);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
