#include "apps/host_commands.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include "fake_host.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

class HostCommandsTest : public ::testing::Test {
 protected:
  void Execute(const Bytes& block) {
    effects_.clear();
    host_.Offer(block);
    commands_.FetchAndExecute();
  }

  // What was queued since the last call.
  Texts Queued() {
    Texts texts;
    for (const WindowRequest& request : requests_.TakeAll()) {
      if (const auto* activate = std::get_if<ActivateRequest>(&request)) {
        texts.push_back("activate " + std::to_string(activate->window));
      } else if (const auto* minimize = std::get_if<MinimizeRequest>(&request)) {
        texts.push_back("minimize " + std::to_string(minimize->window));
      } else if (const auto* close = std::get_if<CloseRequest>(&request)) {
        texts.push_back("close " + std::to_string(close->windows.size()));
      } else {
        texts.push_back("reenumerate");
      }
    }
    return texts;
  }

  void Register(std::int32_t pid, const WindowPairSet& windows) { (*registry_.Lock())[pid] = windows; }

  FakeHost host_;
  LogCapture log_;
  RunningAppRegistry registry_;
  WindowRequestQueue requests_;
  Texts effects_;
  HostCommands commands_{
      host_.Commands(), registry_, requests_,
      ProcessEffects{.launch =
                         [this](const std::string& app, const Texts& args) {
                           effects_.push_back(app);
                           effects_.insert(effects_.end(), args.begin(), args.end());
                         },
                     .kill =
                         [this](pid_t pid, int signal_number) {
                           effects_.push_back(std::to_string(pid) + " " + std::to_string(signal_number));
                           return 0;
                         }}};
};

TEST_F(HostCommandsTest, StartsProgramsAndDesktopEntries) {
  const TempDir files;
  const std::string entry = files.Write("e.desktop", "[Desktop Entry]\nExec=gedit -n %U\n");
  const std::string broken = files.Write("b.desktop", "[Desktop Entry]\nExec=gedit \"%U\n");
  const std::string executable = files.Write("x.desktop", "[Desktop Entry]\nExec=viewer\n");
  std::filesystem::permissions(executable, std::filesystem::perms::owner_all);
  const std::vector<Field> fields{{0x2016, Text("//Mac/NoSuchShare/a")}, {0x2016, Text("/b c")}};
  struct Case {
    Bytes block;
    Texts expected;  // the path for the table, and the arguments
  };
  const auto with = [&](const std::string& app) {
    std::vector<Field> all = fields;
    all.push_back({0x200B, Text(app)});
    return StartMarked(all);
  };
  const std::vector<Case> cases{
      {StartFixed("/bin/sh", "/a.txt"), {"/bin/sh", "/bin/sh"}},
      {with("/bin/sh"), {"/bin/sh", "/bin/sh", "//Mac/NoSuchShare/a", "/b c"}},
      {StartFixed(entry, "/a.txt"), {entry, "gedit", "-n", "/a.txt"}},
      {StartFixed(entry, "//.qsf/NoSuchShare/a"), {entry, "gedit", "-n", "//.qsf/NoSuchShare/a"}},
      {with(entry), {entry, "gedit", "-n", "//Mac/NoSuchShare/a", "/b c"}},
      {StartFixed(executable, ""), {executable, "viewer"}},
      {StartFixed("xterm", ""), {"xterm", "xterm"}},  // found in PATH, if at all
      {StartFixed(broken, "/bin/sh"), {}},
      {with(broken), {}},
  };
  for (const Case& start : cases) {
    Execute(start.block);
    EXPECT_EQ(effects_, start.expected);
  }
  EXPECT_EQ(log_.Count("Error: Failed to resolve path '//.qsf/NoSuchShare/a'"), 1);
  EXPECT_EQ(log_.Count("Error: Failed to resolve doc path '//Mac/NoSuchShare/a'"), 3);
  EXPECT_EQ(log_.Count("Error: Exec line of '" + broken + "' names no program"), 2);
}

TEST_F(HostCommandsTest, QuitsByRequestOrBySignal) {
  Register(50, {{1, 2}, {3, 4}});
  struct Case {
    std::uint32_t pid;
    bool force;
    Texts effects;
    Texts queued;
    const char* line;
  };
  for (const Case& quit : std::vector<Case>{
           {50, false, {}, {"close 2"}, ""},
           {50, true, {"50 9"}, {}, ""},
           {51, false, {"51 15"}, {}, "Error: QuitApp: pid=51 not registered as shared app."},
           {52, true, {"52 9"}, {}, "Error: QuitApp: pid=52 not registered as shared app."},
           {0, true, {}, {}, "Error: QuitApp: pid=0 names no process."},
           {0xFFFFFFFF, false, {}, {}, "Error: QuitApp: pid=-1 names no process."},
           {0x80000000, true, {}, {}, "Error: QuitApp: pid=-2147483648 names no process."},
       }) {
    Execute(Command(107, Words({quit.pid}), quit.force ? 0x20 : 0));
    EXPECT_EQ(effects_, quit.effects) << quit.pid;
    EXPECT_EQ(Queued(), quit.queued) << quit.pid;
    EXPECT_TRUE(*quit.line == '\0' || log_.Contains(quit.line)) << quit.line;
  }
}

TEST_F(HostCommandsTest, HidesActivatesAndResets) {
  // Ordered by client within a process when queued, and over all processes in the reply.
  Register(50, {{100, 8}, {101, 6}});
  Register(60, {{102, 7}, {103, 101}});
  host_.OnSend([this](const Bytes&) { registry_.ProcessCount(); });  // would hang if the lock were held while sending

  const std::vector<Field> lists{{0x2006, Words({60, 77, 50})}, {0x2010, Words({5})}, {0x2011, Words({6})}};
  std::vector<Field> excluding = lists;
  excluding.push_back({0x200F, Words({101, 0})});  // a client of one window, though a toplevel of another
  Execute(AppsCommand(108, 1, excluding));
  EXPECT_EQ(Queued(), (Texts{"minimize 102", "minimize 101", "minimize 100"}));
  const std::vector<Bytes> replies = host_.Sent(108);
  ASSERT_EQ(replies.size(), 1U);
  const Bytes body =
      FieldBuffer({{0x2010, Words({5})}, {0x2011, Words({6})}, {0x200F, Words({101, 0, 102, 0, 100, 0})}});
  EXPECT_TRUE(std::ranges::search(replies[0], body).begin() != replies[0].end());

  excluding.back().data = Words({6, 0, 7, 0, 8, 0, 101, 0});
  Execute(AppsCommand(108, 1, excluding));
  Execute(Command(108, Words({61})));
  EXPECT_EQ(Queued(), Texts{});
  EXPECT_EQ(host_.Sent(108).size(), 1U);

  Execute(AppsCommand(138, 1, lists));
  Execute(Command(109, Words({50})));
  Execute(Command(111, Words({4242})));
  Execute(Command(111, Words({0})));
  EXPECT_EQ(Queued(), (Texts{"activate 102", "activate 103", "activate 101", "activate 100", "activate 101",
                             "activate 100", "activate 4242"}));

  Execute(Words({1, 2, 0xFFFFFFFF, 0, 0}));  // no command
  EXPECT_EQ(registry_.ProcessCount(), 2U);
  Execute(Command(1));
  EXPECT_EQ(registry_.ProcessCount(), 0U);
  EXPECT_EQ(Queued(), Texts{"reenumerate"});
  EXPECT_EQ(host_.Sent(100).size(), 1U);
}

TEST_F(HostCommandsTest, FetchesLargeCommandsAndDistrustsTheirSize) {
  const Bytes large = StartMarked({{0x200B, Text("/bin/sh")}, {0x2016, Text(std::string(8000, 'd'))}});
  const auto fetch = [&](std::uint32_t size) {
    host_.Offer(Command(126, Words({size})));
    Execute(large);
  };
  fetch(static_cast<std::uint32_t>(large.size()));
  EXPECT_EQ(effects_, (Texts{"/bin/sh", "/bin/sh", std::string(8000, 'd')}));
  EXPECT_EQ(host_.Sent(0), (std::vector<Bytes>{Words({0, 2, 0, 0x80000008, 0}), Words({0, 2, 0, 0x80000000, 0})}));

  fetch(static_cast<std::uint32_t>(large.size()) - 1);  // fetched, but the command says that it is longer
  EXPECT_EQ(effects_, Texts{});
  EXPECT_FALSE(log_.Contains("Error: Failed to fetch host command"));

  // Sizes that cannot be: the second block is not fetched, and left for the next cycle.
  for (const std::uint32_t size : {0U, 19U, 0xFFFFFFFFU}) {
    host_.Offer(Command(126, Words({size})));
    commands_.FetchAndExecute();
  }
  EXPECT_EQ(log_.Count("Error: malloc() err, sz=4294967295"), 1);
  EXPECT_EQ(log_.Count("Error: Failed to fetch host command"), 3);
  host_.Offer(Command(126, Words({30})));
  commands_.FetchAndExecute();  // the second fetch fails
  EXPECT_EQ(log_.Count("Error: Failed to fetch host command"), 4);
  commands_.FetchAndExecute();
  EXPECT_EQ(log_.Count("Error: Host command TG request failed"), 1);
}

TEST_F(HostCommandsTest, ThreadEndsAtOnceAndCanBeStartedAgain) {
  for (int round = 0; round < 2; ++round) {
    std::promise<void> fetched;
    std::once_flag once;
    host_.OnSend([&](const Bytes&) { std::call_once(once, [&] { fetched.set_value(); }); });
    commands_.ClearStop();
    std::thread thread([this] { commands_.HostCommandThread(); });
    fetched.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    commands_.RequestStop();
    thread.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
  }
}

}  // namespace
}  // namespace qel::test
