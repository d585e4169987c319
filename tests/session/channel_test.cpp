// The real program on a machine without the device: what reaches the hypervisor.
#include "session/session_test.h"

namespace qel::test {
namespace {

// One that offers the channel, one that takes no message, which is served on, and one of another version, which is
// none. The notifications need the device itself.
TEST(ChannelTest, TheServiceIsRegisteredWhereThereIsNoDevice) {
  const XServer server;
  const struct {
    std::vector<std::string> hypervisor;
    bool serves;
  } rows[] = {{{"--chunk", "7"}, true}, {{"--state", "-1"}, true}, {{"--version", "3"}, false}};
  std::string messages;  // as they were taken in pieces, and whole
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
      EXPECT_TRUE(LogContains("Error: Tools Service: can't deinitialize service (non initialized)"));
    }
    EXPECT_TRUE(LogContains("closed"));
    std::ifstream file(path);
    const std::string arrived(std::istreambuf_iterator<char>(file), {});
    messages = messages.empty() ? arrived : messages;
    EXPECT_EQ(arrived, row.serves ? messages : "");
    EXPECT_EQ(arrived.starts_with("0e00000000000000"), row.serves) << arrived;
    EXPECT_EQ(std::ranges::count(arrived, '\n'), row.serves ? 2 : 0) << "the registration and its end\n" << arrived;
  }
}

}  // namespace
}  // namespace qel::test
