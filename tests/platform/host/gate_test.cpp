// The real device file, driven by a client that writes addresses of requests, and by the console with a small agent as
// its command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "host/host.h"
#include "host/mount_namespace.h"
#include "support/temp_dir.h"

namespace qel::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Set once in main(), before anything makes a thread: why the device file cannot be had here.
std::string namespace_error;  // NOLINT

class GateTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error = namespace_error;
    if (error.empty() && host_.Start(error)) return;
    // Where nobody looks, a test that was left out is as good as a failed one.
    if (std::getenv("CI") != nullptr) FAIL() << error;
    GTEST_SKIP() << error;
  }

  Host host_;
};

struct Answer {
  int error;  // errno value of the write; 0 if it took everything
  std::uint32_t status;
  bool replied;  // something was written into the reply area
};

// A client that says one thing, "the enumeration is finished", right or wrong.
class Client {
 public:
  ~Client() {
    munmap(memory_, kMemory);
    close(device_);
  }
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int Write(const void* bytes, std::size_t size) const {
    const ssize_t written = write(device_, bytes, size);
    return written < 0 ? errno : static_cast<std::size_t>(written) == size ? 0 : EIO;
  }
  int WriteAddress(std::uint32_t address) const { return Write(&address, sizeof address); }

  // Submits the request with some of its words changed: place and value.
  Answer Submit(std::initializer_list<std::pair<std::size_t, std::uint32_t>> changes = {}) const {
    const auto base = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(memory_));
    // Code, status, number of buffers, reserved; the two buffers; the block; the reply.
    const std::uint32_t request[22] = {0x8302, 0, 2 << 16, 0, base + 48, 0, 20, 0, base + 68, 0, 20, 1, 113, 2};
    std::ranges::copy(request, memory_);
    for (const auto& [place, value] : changes) memory_[place] = value;
    const int error = WriteAddress(base);
    return {error, memory_[1], std::any_of(memory_ + 17, memory_ + 22, [](std::uint32_t word) { return word != 0; })};
  }

 private:
  static constexpr std::size_t kMemory = 1 << 20;

  int device_ = open(GateDevice::kPath, O_WRONLY | O_CLOEXEC);
  std::uint32_t* memory_ = static_cast<std::uint32_t*>(
      mmap(nullptr, kMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
};

TEST_F(GateTest, MisbehavesAsTold) {
  const Client client;
  host_.faults().Add({.action = FaultAction::kResubmit, .times = 2});
  for (const FaultAction action : {FaultAction::kFail, FaultAction::kReject, FaultAction::kGarbage}) {
    host_.faults().Add({.action = action});
  }
  host_.faults().Add({.action = FaultAction::kWriteError, .error = ENXIO});
  EXPECT_EQ(client.Submit().status, kStatusResubmit);
  EXPECT_EQ(client.Submit({{1, kStatusResubmit}}).status, kStatusResubmit);
  EXPECT_EQ(host_.model().Snapshot().remarks, 0U);
  EXPECT_EQ(client.Submit({{12, 101}}).status, kStatusFailure);
  EXPECT_EQ(host_.model().Snapshot().remarks, 1U) << "the request came back changed";
  EXPECT_EQ(client.Submit().status, kStatusRejected);
  EXPECT_TRUE(client.Submit().replied);
  EXPECT_EQ(client.Submit().error, ENXIO);
  EXPECT_FALSE(client.Submit().replied);
  EXPECT_EQ(host_.model().Snapshot().violations, 0U);
  EXPECT_EQ(host_.model().Snapshot().Count(MessageKind::kFinishEnum), 2U) << "only these were taken";
}

TEST_F(GateTest, SurvivesBadWritesAndDeadClients) {
  const Client client;
  EXPECT_EQ(client.WriteAddress(0x10), EFAULT);
  EXPECT_EQ(client.WriteAddress(0xFFFFFFF8), EFAULT);
  EXPECT_EQ(client.Write("12345678", 8), EINVAL);
  EXPECT_EQ(client.Submit({{6, 0xFFFFFFF0}}).error, EINVAL) << "the size";
  EXPECT_EQ(client.Submit({{6, 32 << 20}}).error, EFAULT) << "beyond what is mapped";
  EXPECT_EQ(client.Submit({{2, 65 << 16}}).error, EINVAL) << "the number of buffers";
  EXPECT_EQ(host_.model().Snapshot().violations, 6U);

  host_.faults().SetDelay(milliseconds(300));
  const pid_t child = fork();
  if (child == 0) {
    client.Submit();
    _exit(0);
  }
  EXPECT_TRUE(host_.WaitFor([](const ModelState& s) { return s.Count(MessageKind::kFinishEnum) == 1; }, seconds(10)));
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  host_.faults().Clear();
  EXPECT_EQ(client.Submit().status, kStatusSuccess);
}

TEST_F(GateTest, StopsWithAnswersWaitingAndStartsAgain) {
  host_.faults().SetDelay(seconds(600));
  const Client client;
  std::thread waiting([&] { EXPECT_EQ(client.Submit().error, 0); });
  ASSERT_TRUE(host_.WaitFor([](const ModelState& s) { return s.messages == 1; }, seconds(10)));
  host_.Stop();
  waiting.join();
  EXPECT_NE(access(GateDevice::kPath, F_OK), 0);
  host_.faults().Clear();
  std::string error;
  ASSERT_TRUE(host_.Start(error)) << error;
  EXPECT_EQ(Client().Submit().error, 0);
}

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

  test::TempDir directory_;
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
}  // namespace qel::host

// In a mount namespace of its own.
int main(int argc, char** argv) {
  qel::host::EnterPrivateMountNamespace(qel::host::namespace_error);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
