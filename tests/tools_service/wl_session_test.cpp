// Agents in a real Wayland session. The session's compositor runs nested in another one without a screen: its outputs
// are the outer one's windows, so they can come, change and go.

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "tools_service/wl_test_support.h"

namespace qel::test {
namespace {

using ::testing::HasSubstr;

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Waits until a file holds a text n times.
bool WaitFor(const std::filesystem::path& file, const std::string& text, int n = 1) {
  return WaitUntil([&] {
    const std::string content = ReadAll(file);
    int count = 0;
    for (std::size_t at = 0; (at = content.find(text, at)) != std::string::npos; at += text.size()) {
      ++count;
    }
    return count >= n;
  });
}

// Runs sway in a directory, with settings for the library that it draws with; its control socket gets the name.
std::unique_ptr<ChildProcess> StartSway(const std::string& directory, const std::string& name,
                                        const std::string& settings) {
  std::string command = "cd " + directory + " && echo xwayland disable >config && ";
  std::string user;
  if (geteuid() == 0) {
    // It refuses to run as root. The change of user would undo that the kernel ends it with this process.
    command += "chown 65534 . && ";
    user = "setpriv --pdeathsig=keep --reuid=65534 --regid=65534 --clear-groups ";
  }
  command += "XDG_RUNTIME_DIR=$PWD SWAYSOCK=$PWD/" + name + " WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 " +
             settings + " exec " + user + "sway --config config >" + name + ".out 2>&1";
  auto sway = Shell(command);
  const std::string socket = directory + '/' + name;
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(socket); })) << ReadAll(socket + ".out");
  return sway;
}

void Command(const std::string& socket, const std::string& command) {
  const auto status = Shell("exec swaymsg --quiet --socket " + socket + " -- " + command)->Wait();
  EXPECT_TRUE(status && status->exit_code == 0) << command;
}

// An agent on the terminal tty3, in the session of the nested compositor.
struct Agent {
  Agent(const std::string& session, key_t key) {
    MoveConsoleTo("tty3");
    process = Shell("cd " + path + " && XDG_RUNTIME_DIR=" + session + " WAYLAND_DISPLAY=wayland-2 XDG_VTNR=3 exec " +
                    QEL_WL_AGENT + ' ' + std::to_string(key) + " . . --own-session >out");
  }
  void MoveConsoleTo(const char* terminal) const { directory.Write("console/active", terminal); }
  bool Prints(const std::string& text, int n = 1) const { return WaitFor(path + "/out", text, n); }
  bool Logs(const std::string& text, int n = 1) const { return WaitFor(path + "/corvessan.log", text, n); }
  std::string Output() const { return ReadAll(path + "/out"); }
  std::string Log() const { return ReadAll(path + "/corvessan.log"); }
  void ExpectGoodEnd() const {
    const auto status = process->Wait();
    ASSERT_TRUE(status) << Log();
    EXPECT_EQ(status->exit_code, 0);
  }

  TempDir directory;
  const std::string path = directory.Path();
  std::unique_ptr<ChildProcess> process;
};

TEST(WlSessionTest, OutputsAgentsAndCompositorComeAndGo) {
  const TempDir directory;
  const ConsoleKey key;
  const std::string session = directory.Path();
  const auto outer = StartSway(session, "outer", "WLR_BACKENDS=headless");
  const auto inner = StartSway(session, "inner", "WLR_BACKENDS=wayland WAYLAND_DISPLAY=wayland-1");

  const Agent first(session, key.value);
  ASSERT_TRUE(first.Prints("init type 2")) << first.Log();
  EXPECT_TRUE(first.Prints("mode "));
  Command(session + "/inner", "create_output");
  EXPECT_TRUE(first.Logs(") added", 2));
  Command(session + "/inner", "output WL-2 mode --custom 800x600@60Hz");
  EXPECT_TRUE(first.Prints("mode 800x600 flags 1"));
  Command(session + "/outer", "kill");  // closes one of the windows
  EXPECT_TRUE(first.Logs(") removed"));

  first.MoveConsoleTo("tty1");
  EXPECT_TRUE(first.Prints("stop"));
  first.MoveConsoleTo("tty3");
  EXPECT_TRUE(first.Prints("init type 2", 2));

  const Agent second(session, key.value);
  second.ExpectGoodEnd();
  EXPECT_THAT(second.Log(), HasSubstr("Error: Tools Service: can't set file lock. Resource temporarily unavailable"));
  EXPECT_THAT(second.Log(), HasSubstr("Error: Tools Service: can't acquire user session lock"));
  EXPECT_EQ(second.Output(), "");

  const std::string lock = session + "/Corvessan.ControlCenter.UserSession.{wayland-2}.lock";
  first.process->Kill(SIGKILL);
  ASSERT_TRUE(first.process->Wait());
  EXPECT_TRUE(std::filesystem::exists(lock));

  const Agent third(session, key.value);
  ASSERT_TRUE(third.Prints("init type 2")) << third.Log();
  third.process->Kill(SIGTERM);
  third.ExpectGoodEnd();
  EXPECT_TRUE(third.Output().ends_with("stop\n"));
  EXPECT_TRUE(std::filesystem::exists(lock));

  const Agent last(session, key.value);
  ASSERT_TRUE(last.Prints("init type 2")) << last.Log();
  inner->Kill(SIGKILL);
  last.ExpectGoodEnd();
  EXPECT_TRUE(last.Output().ends_with("stop\n"));
  EXPECT_THAT(last.Log(), HasSubstr("Couldn't roundtrip Wayland queue (res=-1), while handle events"));
  EXPECT_THAT(last.Log(), HasSubstr("Tools Service: Wayland service cleanup completed"));
}

}  // namespace
}  // namespace qel::test
