// The real program on a machine without the device: what reaches the hypervisor.

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

#include "session/session.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

std::string Hex(const std::string& text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : text) {
    hex += kDigits[static_cast<unsigned char>(c) >> 4];
    hex += kDigits[c & 15];
  }
  return hex;
}

// Both begin with a prefix of four numbers and the block's header, and tell their kind. Blanks are left out.
std::string Message(const std::string& payload_size, const std::string& fields) {
  std::string message = "0e000000 00000000 01000000 00000000 " + payload_size +
                        " 00100000 00000000 08000000 01200000 00000000 01000000 03000000 " + fields;
  std::erase(message, ' ');
  return message;
}

const std::string kName = Hex("corvessan.Tandrel.guest.lin");
const std::string kRegister =
    Message("91000000", "16000000 ca200000 01000000" + Hex("Corvessan Tandrel Tool") +
                            "28000000 cb200000 02000000 01000000 00000000 01000000 00000080 01000000 00000000 09000000"
                            "09 0000 00 00000000 00000000 1b000000 91210000 03000000" +
                            kName);
const std::string kUnregister =
    Message("4b000000", "04000000 cf200000 01000000 02000000 1b000000 91210000 02000000" + kName);

// An agent under a hypervisor that offers the channel, started with these options.
class TracedAgent {
 public:
  TracedAgent(const std::string& display, std::vector<std::string> options)
      : process_(Options(display, log_.string(), std::move(options))) {}

  // The messages that arrived, as hexadecimal digits.
  std::vector<std::string> Messages() const {
    std::vector<std::string> lines;
    std::ifstream file(log_);
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  void Stop() { process_.Kill(SIGTERM); }
  void ExpectOrderlyEnd() {
    const auto status = process_.Wait(kStopTime);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->exit_code, 0);
  }

 private:
  static ChildOptions Options(const std::string& display, const std::string& log, std::vector<std::string> options) {
    ChildOptions child;
    child.arguments = {QEL_HYPERVISOR_RUN, "--log", log};
    child.arguments.insert(child.arguments.end(), options.begin(), options.end());
    child.arguments.insert(child.arguments.end(), {"--", QEL_AGENT, "-r", "100"});
    // A leak check cannot be made in a process that is traced already.
    child.environment = {
        {"DISPLAY", display}, {"DBUS_SESSION_BUS_ADDRESS", "disabled:"}, {"ASAN_OPTIONS", "detect_leaks=0"}};
    return child;
  }

  TempDir directory_;
  std::filesystem::path log_ = directory_.Write("messages", "");
  ChildProcess process_;
};

class ChannelTest : public testing::Test {
 protected:
  ChannelTest() { ClearLog(); }
  XServer server_;
};

TEST_F(ChannelTest, MessagesArriveByteForByteInPiecesOfAnySize) {
  const std::size_t length = kRegister.size() / 2;
  ASSERT_EQ(length, 173u);
  for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, length - 1, length, length + 1, std::size_t{4096}}) {
    SCOPED_TRACE(chunk);
    ClearLog();
    TracedAgent agent(server_.Display(), {"--chunk", std::to_string(chunk)});
    ASSERT_TRUE(
        WaitUntil([] { return LogContains("Warning: Tools Service: can't initialize all components"); }, kSoon));
    EXPECT_EQ(agent.Messages(), std::vector<std::string>{kRegister});
    // The notifications need the device itself.
    EXPECT_TRUE(LogContains("Error: Can't open /proc/driver/qel_tg"));
    EXPECT_TRUE(LogContains("Error: Can't initialize"));
    agent.Stop();
    agent.ExpectOrderlyEnd();
    EXPECT_EQ(agent.Messages(), (std::vector<std::string>{kRegister, kUnregister}));
    EXPECT_TRUE(LogContains("closed"));
  }
}

TEST_F(ChannelTest, AHypervisorThatRefusesIsBorne) {
  // One that takes no message is served on; one of another version is none.
  TracedAgent refused(server_.Display(), {"--state", "-1"});
  ASSERT_TRUE(WaitUntil([] { return LogContains("Warning: Tools Service: can't initialize all components"); }, kSoon));
  refused.Stop();
  refused.ExpectOrderlyEnd();
  TracedAgent other(server_.Display(), {"--version", "3"});
  other.ExpectOrderlyEnd();
  EXPECT_TRUE(LogContains("Error: Could not open link to Open Tools Gate: -6"));
  EXPECT_TRUE(other.Messages().empty());
}

}  // namespace
}  // namespace qel::test
