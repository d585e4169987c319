#include "apps/host_commands.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "fake_host.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

struct Case {
  Bytes block;
  Texts effects;
};

class HostCommandsTest : public ::testing::Test {
 protected:
  HostCommandsTest() {
    host_.OnSend([this](const Bytes&) { registry_.ProcessCount(); });  // would hang if the lock were held while sending
  }

  // What a command does while processes 50 and 60 are registered. The block is a copy that ends where its allocation
  // ends, so that the sanitizer sees every byte read too many.
  Texts EffectsOf(const Bytes& block) {
    effects_.clear();
    *registry_.Lock() = {{50, {{100, 8}, {101, 6}}}, {60, {{102, 7}, {103, 101}}}};
    commands_.Execute(Bytes(block.begin(), block.end()));
    return TakeEffects();
  }

  Texts EffectsOfFetch() {
    effects_.clear();
    commands_.FetchAndExecute();
    return TakeEffects();
  }

  Texts TakeEffects() {
    for (const WindowRequest& request : requests_.TakeAll()) {
      if (const auto* activate = std::get_if<ActivateRequest>(&request)) {
        effects_.push_back("activate " + std::to_string(activate->window));
      } else if (const auto* minimize = std::get_if<MinimizeRequest>(&request)) {
        effects_.push_back("minimize " + std::to_string(minimize->window));
      } else if (const auto* close = std::get_if<CloseRequest>(&request)) {
        effects_.push_back("close " + std::to_string(close->windows.size()));
      } else {
        effects_.push_back("reenumerate");
      }
    }
    return effects_;
  }

  void Expect(const std::vector<Case>& cases) {
    for (std::size_t i = 0; i < cases.size(); ++i) {
      EXPECT_EQ(EffectsOf(cases[i].block), cases[i].effects) << "case " << i;
    }
  }

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
                           effects_.push_back("kill " + std::to_string(pid) + " " + std::to_string(signal_number));
                           return 0;
                         }}};
};

const std::vector<Field> kStartFields{{0x200B, Text("/not/this")},
                                      {0x2016, Text("//Mac/NoShare/a")},
                                      {7, Text("?")},
                                      {0x200B, Text(std::string_view("/bin/sh\0-x", 10))},
                                      {0x2016, Text("/b c")}};
const std::vector<Field> kLists{{0x2006, Words({60, 77, 50})}, {0x2010, Words({5})}, {0x2011, Words({6, 99})}};
const std::vector<Field> kTwoLists{{7, {}}, {0x2006, Words({60, 0xFFFFFFFE})}, {0x2006, Words({50})}};

std::vector<Field> Excluding(const std::vector<std::uint32_t>& items) {
  std::vector<Field> fields = kLists;
  fields.push_back({0x200F, Words(items) + Text("odd")});
  return fields;
}

TEST_F(HostCommandsTest, StartsProgramsAndDesktopEntries) {
  const TempDir files;
  const std::string entry = files.Write("e.desktop", "[Desktop Entry]\nExec=gedit -n %U\n");
  const std::string broken = files.Write("b.desktop", "[Desktop Entry]\nExec=gedit \"%U\n");
  const std::string executable = files.Write("x.desktop", "[Desktop Entry]\nExec=viewer\n");
  std::filesystem::permissions(executable, std::filesystem::perms::owner_all);
  const auto fields = [](const std::string& app) {
    return std::vector<Field>{{0x2016, Text("/b c")}, {0x200B, Text(app)}};
  };
  const Texts both{"/bin/sh", "/bin/sh", "//Mac/NoShare/a", "/b c"};
  Expect({
      {StartFixed("/bin/sh", "/a.txt"), {"/bin/sh", "/bin/sh"}},
      {StartMarked(kStartFields), both},
      {StartLong("/not/this", kStartFields), both},
      {StartFixed(entry, "/a.txt"), {entry, "gedit", "-n", "/a.txt"}},
      {StartFixed(entry, "//.qsf/NoShare/a"), {entry, "gedit", "-n", "//.qsf/NoShare/a"}},
      {StartMarked(fields(entry)), {entry, "gedit", "-n", "/b c"}},
      {StartFixed(executable, ""), {executable, "viewer"}},
      {StartFixed("xterm", ""), {"xterm", "xterm"}},  // found in PATH, if at all
      {StartFixed(broken, "/bin/sh"), {}},
      {StartMarked(fields(broken)), {}},
      {Command(106, Words({0xFFFFFFFF})), {}},
      {Command(106, WideText("/bin/sh") + Bytes(521)), {}},
  });
  EXPECT_EQ(log_.Count("Error: Failed to resolve path '//.qsf/NoShare/a'"), 1);
  EXPECT_EQ(log_.Count("Error: Failed to resolve doc path '//Mac/NoShare/a'"), 2);
  EXPECT_EQ(log_.Count("Error: Exec line of '" + broken + "' names no program"), 2);
}

TEST_F(HostCommandsTest, QuitsHidesActivatesAndResets) {
  Expect({
      {Command(107, Words({50})), {"close 2"}},
      {Command(107, Words({50}), 0x21), {"kill 50 9"}},
      {Command(107, Words({51})), {"kill 51 15"}},
      {Command(107, Words({0}), 0x20), {}},
      {Command(107, Words({0xFFFFFFFF})), {}},
      {AppsCommand(108, 9, kLists), {"minimize 102", "minimize 103", "minimize 101", "minimize 100"}},
      // Excluded is what has the client 101, not what has the top-level window 101.
      {AppsCommand(108, 9, Excluding({101, 0})), {"minimize 102", "minimize 101", "minimize 100"}},
      {AppsCommand(108, 9, Excluding({6, 0, 7, 0, 8, 0, 101, 0})), {}},
      {AppsCommand(108, 60, {{0x2006, Text("xyz")}, {0x200F, Words({7, 0})}}), {"minimize 103"}},
      {Command(108, Words({61})), {}},
      {AppsCommand(109, 50, kTwoLists), {"activate 102", "activate 103"}},
      {AppsCommand(138, 60, {{0x2006, Text("xyz")}, kTwoLists[1]}), {"activate 102", "activate 103"}},
      {Command(109, Words({50})), {"activate 101", "activate 100"}},
      {Command(111, Words({4242})), {"activate 4242"}},
      {Command(111, Words({0})), {}},
      {Words({1, 2, 0xFFFFFFFF, 0, 0}), {}},  // no command
      {Command(110), {}},
      {Command(137), {}},
      {Command(0x10001), {}},
      {Command(1), {"reenumerate"}},
  });
  EXPECT_EQ(log_.Count("Error: QuitApp: pid=51 not registered as shared app."), 1);
  EXPECT_EQ(log_.Count("Error: QuitApp: pid=-1 names no process."), 1);
  EXPECT_EQ(registry_.ProcessCount(), 0U) << "after the reset";
  EXPECT_EQ(host_.Sent(100).size(), 1U);

  // Replies: ordered by client over all processes, and none when every window was excluded.
  const std::vector<Bytes> replies = host_.Sent(108);
  ASSERT_EQ(replies.size(), 3U);
  const Bytes fields =
      FieldBuffer({{0x2010, Words({5})}, {0x2011, Words({6})}, {0x200F, Words({101, 0, 102, 0, 100, 0})}});
  EXPECT_FALSE(std::ranges::search(replies[1], fields).empty());
}

// Each command cut at every length, once as it is and once with a size that claims the cut was meant; and with each of
// its words replaced. Nothing outside is read, and nothing is started or signalled that the command does not name.
TEST_F(HostCommandsTest, SurvivesDamagedCommands) {
  const std::vector<std::uint32_t> hostile{0, 19, 35, 0x7FFFFFFF, 0xFFFFFFEC, 0xFFFFFFFF};
  const auto put = [](Bytes& block, std::size_t offset, std::uint32_t value) {
    std::ranges::copy(Words({value}), block.begin() + static_cast<std::ptrdiff_t>(offset));
  };
  const auto harmless = [](const Texts& effects) {
    return effects.empty() || effects[0].starts_with("minimize ") || effects[0].starts_with("activate ") ||
           std::set<std::string>{"close 2", "/bin/sh", "/not/this", ""}.contains(effects[0]);
  };
  for (const Bytes& whole : {StartFixed("/bin/sh", "/a"), StartMarked(kStartFields), StartLong("/bin/sh", kStartFields),
                             Command(107, Words({50})), AppsCommand(108, 50, Excluding({7, 0})),
                             AppsCommand(109, 50, kTwoLists), Command(111, Words({4242}))}) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
      Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(EffectsOf(cut), Texts{});
      if (size >= kHostCommandHeaderSize) {
        put(cut, 16, static_cast<std::uint32_t>(size - kHostCommandHeaderSize));
        EXPECT_PRED1(harmless, EffectsOf(cut));
      }
    }
    for (std::size_t offset = 0; offset + 4 <= whole.size(); offset += 4) {
      for (const std::uint32_t value : hostile) {
        Bytes damaged = whole;
        put(damaged, offset, value);
        EffectsOf(damaged);
      }
    }
  }
}

TEST_F(HostCommandsTest, FetchesLargeCommandsAndDistrustsTheirSize) {
  const Bytes large = StartMarked({{0x200B, Text("/bin/sh")}, {0x2016, Text(std::string(8000, 'd'))}});
  const auto size = static_cast<std::uint32_t>(large.size());
  host_.Offer(Command(126, Words({size})));
  host_.Offer(large);
  EXPECT_EQ(EffectsOfFetch(), (Texts{"/bin/sh", "/bin/sh", std::string(8000, 'd')}));
  EXPECT_EQ(host_.Sent(0), (std::vector<Bytes>{Words({0, 2, 0, 0x80000008, 0}), Words({0, 2, 0, 0x80000000, 0})}));

  host_.Offer(Command(126, Words({size - 1})));
  host_.Offer(large);  // says that it is longer than what was fetched
  EXPECT_EQ(EffectsOfFetch(), Texts{});
  EXPECT_FALSE(log_.Contains("Error: Failed to fetch host command"));
  for (const std::uint32_t lie : {0U, 19U, 0xFFFFFFFFU, 30U}) {  // the last one is fetched, in vain
    host_.Offer(Command(126, Words({lie})));
    commands_.FetchAndExecute();
  }
  EXPECT_EQ(log_.Count("Error: malloc() err, sz=4294967295"), 1);
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
