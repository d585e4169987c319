// The real program on a machine without the device: what reaches the hypervisor.
#include "session/session_test.h"

namespace qel::test {
namespace {

std::string Hex(const std::string& text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : text) {
    hex.append({kDigits[static_cast<unsigned char>(c) >> 4], kDigits[c & 15]});
  }
  return hex;
}

// Both begin with a prefix of four numbers and the block's header, and tell their kind. Blanks are left out.
std::string Message(const std::string& payload_size, const std::string& fields) {
  std::string message = "0e000000 00000000 01000000 00000000 " + payload_size +
                        " 00100000 00000000 08000000 01200000 00000000 01000000 03000000 " + fields;
  std::erase(message, ' ');
  return message + Hex("corvessan.Tandrel.guest.lin") + "\n";
}

const std::string kRegister =
    Message("91000000", "16000000 ca200000 01000000" + Hex("Corvessan Tandrel Tool") +
                            "28000000 cb200000 02000000 01000000 00000000 01000000 00000080 01000000 00000000 09000000"
                            "09 0000 00 00000000 00000000 1b000000 91210000 03000000");
const std::string kUnregister = Message("4b000000", "04000000 cf200000 01000000 02000000 1b000000 91210000 02000000");

// One that offers the channel, one that takes no message, which is served on, and one of another version, which is
// none. The notifications need the device itself.
TEST(ChannelTest, MessagesArriveByteForByte) {
  const XServer server;
  const struct {
    std::vector<std::string> hypervisor;
    std::string messages;
    bool serves;
  } rows[] = {
      {{"--chunk", "7"}, kRegister + kUnregister, true},
      {{"--state", "-1"}, kRegister + kUnregister, true},
      {{"--version", "3"}, "", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hypervisor[0]);
    ClearLog();
    const TempDir directory;
    const std::string path = directory.Write("messages", "");
    std::vector<std::string> wrapper{QEL_HYPERVISOR_RUN, "--log", path};
    wrapper.insert(wrapper.end(), row.hypervisor.begin(), row.hypervisor.end());
    wrapper.emplace_back("--");
    // A leak check cannot be made in a process that is traced already.
    Agent agent(server.Display(), {"-r", "100"}, {{"ASAN_OPTIONS", "detect_leaks=0"}}, wrapper);
    if (row.serves) {
      ASSERT_TRUE(WaitForLog("Warning: Tools Service: can't initialize all components"));
      EXPECT_TRUE(LogContains("Error: Can't open /proc/driver/qel_tg"));
      EXPECT_TRUE(LogContains("Error: Can't initialize"));
      agent.Stop();
    } else {
      agent.ExpectOrderlyEnd();
      EXPECT_TRUE(LogContains("Error: Could not open link to Open Tools Gate: -6"));
    }
    EXPECT_TRUE(LogContains("closed"));
    std::ifstream messages(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(messages), {}), row.messages);
  }
}

}  // namespace
}  // namespace qel::test
