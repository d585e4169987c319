// Agents in a real Wayland session. The session's compositor runs nested in another one without a screen: its outputs
// are the outer one's windows, so they can come, change and go.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "tools_service/wl_test_support.h"

namespace qel::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr uid_t kNobody = 65534;

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int Occurrences(const std::string& text, std::string_view word) {
  int count = 0;
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + word.size())) {
    ++count;
  }
  return count;
}

int OpenNew(const std::filesystem::path& path) {
  return open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
}

class Sway {
 public:
  // `backend` is the compositor library's: "headless", or "wayland" for windows on the display `outer`.
  Sway(const TempDir& directory, const std::string& name, const std::string& backend,
       const std::optional<std::string>& outer = {})
      : directory_(directory.Path()), socket_(directory_ / (name + ".sock")) {
    ChildOptions options;
    if (geteuid() == 0) {
      // It refuses to run as root. The change of user would undo that the kernel ends it with this process.
      chown(directory_.c_str(), kNobody, kNobody);
      options.arguments = {"setpriv", "--pdeathsig=keep", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }
    const std::filesystem::path config = directory.Write(name + ".config", "xwayland disable\n");
    options.arguments.insert(options.arguments.end(), {"sway", "--config", config.string()});
    options.environment = {{"XDG_RUNTIME_DIR", directory_.string()},
                           {"SWAYSOCK", socket_.string()},
                           {"WLR_BACKENDS", backend},
                           {"WLR_RENDERER", "pixman"},
                           {"WLR_LIBINPUT_NO_DEVICES", "1"},
                           {"WAYLAND_DISPLAY", outer},
                           {"DISPLAY", {}}};
    const int output = OpenNew(directory_ / (name + ".out"));
    options.standard_output = options.standard_error = output;
    process_ = std::make_unique<ChildProcess>(options);
    close(output);
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(socket_); }));
  }

  void Command(const std::string& command) const {
    ChildProcess message(
        {.arguments = {"swaymsg", "--socket", socket_, "--quiet", "--", command}, .environment = {}, .inherited = {}});
    const auto status = message.Wait();
    EXPECT_TRUE(status && status->exit_code == 0) << command;
  }

  void Kill() const {
    process_->Kill(SIGKILL);
    EXPECT_TRUE(process_->Wait());
  }

 private:
  std::filesystem::path directory_;
  std::filesystem::path socket_;
  std::unique_ptr<ChildProcess> process_;
};

class Agent {
 public:
  Agent(const std::filesystem::path& runtime_directory, const std::string& display, const ConsoleKey& key)
      : console_(logs_.Write("console/active", "tty3\n")) {
    const int output = OpenNew(logs_.Path() / "out");
    process_ = std::make_unique<ChildProcess>(ChildOptions{
        .arguments = {QEL_WL_AGENT, std::to_string(key.Value()), logs_.Path(), logs_.Path(), "--own-session"},
        .environment = {{"XDG_RUNTIME_DIR", runtime_directory.string()},
                        {"WAYLAND_DISPLAY", display},
                        {"XDG_VTNR", "3"}},
        .standard_output = output,
        .inherited = {}});
    close(output);
  }

  std::string Output() const { return ReadAll(logs_.Path() / "out"); }
  std::string Log() const { return ReadAll(logs_.Path() / "corvessan.log"); }
  // Waits for the n-th of these texts.
  bool Prints(std::string_view text, int n = 1) const {
    return WaitUntil([&] { return Occurrences(Output(), text) >= n; });
  }
  bool Logs(std::string_view text, int n = 1) const {
    return WaitUntil([&] { return Occurrences(Log(), text) >= n; });
  }
  void MoveConsoleTo(const char* terminal) const { std::ofstream(console_) << terminal << '\n'; }

  ChildProcess& Process() const { return *process_; }

 private:
  TempDir logs_;
  std::filesystem::path console_;
  std::unique_ptr<ChildProcess> process_;
};

TEST(WlSessionTest, OutputsAgentsAndCompositorComeAndGo) {
  const TempDir directory;
  const ConsoleKey key;
  const Sway outer(directory, "outer", "headless");
  const Sway inner(directory, "inner", "wayland", "wayland-1");
  const std::string display = "wayland-2";

  auto first = std::make_unique<Agent>(directory.Path(), display, key);
  ASSERT_TRUE(first->Prints("init type 2")) << first->Log();
  EXPECT_TRUE(first->Prints("mode "));
  inner.Command("create_output");
  EXPECT_TRUE(first->Logs(") added", 2));
  inner.Command("output WL-2 mode --custom 800x600@60Hz");
  EXPECT_TRUE(first->Prints("mode 800x600 flags 1"));
  outer.Command("kill");  // closes the newer window
  EXPECT_TRUE(first->Logs(") removed")) << first->Log();

  first->MoveConsoleTo("tty1");
  EXPECT_TRUE(first->Prints("stop"));
  first->MoveConsoleTo("tty3");
  EXPECT_TRUE(first->Prints("init type 2", 2));

  const Agent second(directory.Path(), display, key);
  const auto refused = second.Process().Wait();
  ASSERT_TRUE(refused) << second.Log();
  EXPECT_EQ(refused->exit_code, 0);
  EXPECT_THAT(second.Log(), HasSubstr("Error: Tools Service: can't set file lock. Resource temporarily unavailable"));
  EXPECT_THAT(second.Log(), HasSubstr("Error: Tools Service: can't acquire user session lock"));
  EXPECT_THAT(second.Log(), Not(HasSubstr("user session unlocked")));
  EXPECT_EQ(second.Output(), "");

  first->Process().Kill(SIGKILL);
  ASSERT_TRUE(first->Process().Wait());
  const std::filesystem::path lock = directory.Path() / ("Corvessan.ControlCenter.UserSession.{" + display + "}.lock");
  EXPECT_TRUE(std::filesystem::exists(lock));
  {
    const Agent third(directory.Path(), display, key);
    ASSERT_TRUE(third.Prints("init type 2")) << third.Log();
    third.Process().Kill(SIGTERM);
    const auto stopped = third.Process().Wait();
    ASSERT_TRUE(stopped) << third.Log();
    EXPECT_EQ(stopped->exit_code, 0);
    EXPECT_TRUE(third.Output().ends_with("stop\n"));
    EXPECT_THAT(third.Log(), HasSubstr("Tools Service: user session unlocked"));
    EXPECT_TRUE(std::filesystem::exists(lock));
  }

  const Agent last(directory.Path(), display, key);
  ASSERT_TRUE(last.Prints("init type 2")) << last.Log();
  inner.Kill();
  const auto ended = last.Process().Wait();
  ASSERT_TRUE(ended) << last.Log();
  EXPECT_EQ(ended->exit_code, 0);
  EXPECT_TRUE(last.Output().ends_with("stop\n"));
  EXPECT_THAT(last.Log(), HasSubstr("Couldn't roundtrip Wayland queue (res=-1), while handle events"));
  EXPECT_THAT(last.Log(), HasSubstr("Tools Service: Wayland service cleanup completed"));
}

}  // namespace
}  // namespace qel::test
