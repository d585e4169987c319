// The real program on a machine without the device file. It sends its messages over the hypervisor call.
#include "session/session_test.h"

namespace qel::test {
namespace {

// Three hypervisors: one works, one accepts no message but the agent keeps running, and one has an unsupported version,
// so that the agent ends. Guest commands need the device, so only the service messages arrive.
TEST(ChannelTest, RegistersTheServiceWithoutTheDevice) {
  const XServer server;
  const struct {
    std::vector<std::string> hypervisor;
    bool serves;
  } rows[] = {{{"--chunk", "7"}, true}, {{"--state", "-1"}, true}, {{"--version", "3"}, false}};
  std::string messages;  // those of the first hypervisor; the second gets the same
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hypervisor[0]);
    ClearLog();
    const TempDir directory;
    const std::string path = directory.Write("messages", "");
    std::vector<std::string> wrapper{QEL_HYPERVISOR_RUN, "--log", path};
    wrapper.insert(wrapper.end(), row.hypervisor.begin(), row.hypervisor.end());
    wrapper.emplace_back("--");
    // The leak check does not work in a process that is already traced.
    Agent agent(server.Display(), {"-r", "100"}, {{"ASAN_OPTIONS", "detect_leaks=0"}}, wrapper);
    if (row.serves) {
      ASSERT_TRUE(WaitForLog("Warning: Tools Service: can't initialize all components"));
      EXPECT_TRUE(LogContains("Error: Can't open /proc/driver/qel_tg"));
      EXPECT_TRUE(LogContains("Error: Can't initialize"));
      agent.Stop();
    } else {
      agent.ExpectOrderlyEnd();
      EXPECT_TRUE(LogContains("Error: Could not open link to Open Tools Gate: -6"));
      EXPECT_TRUE(LogContains("Error: Tools Service: can't deinitialize service (non initialized)"));
    }
    EXPECT_TRUE(LogContains("closed"));
    std::ifstream file(path);
    const std::string arrived(std::istreambuf_iterator<char>(file), {});
    messages = messages.empty() ? arrived : messages;
    EXPECT_EQ(arrived, row.serves ? messages : "");
    EXPECT_EQ(arrived.starts_with("0e00000000000000"), row.serves) << arrived;
    EXPECT_EQ(std::ranges::count(arrived, '\n'), row.serves ? 2 : 0) << "two service messages\n" << arrived;
  }
}

}  // namespace
}  // namespace qel::test
