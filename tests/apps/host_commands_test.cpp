// Host commands byte by byte, valid and invalid ones. The session tests check the effects of valid commands.
#include "apps/host_commands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <new>
#include <optional>
#include <thread>

#include "base/overloaded.h"
#include "host/host_commands.h"
#include "host_view.h"
#include "platform/host/messages.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using host::Bytes;
using namespace host::test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary
using Texts = std::vector<std::string>;
using Fields = std::vector<std::pair<std::uint32_t, Bytes>>;

Bytes Command(std::uint32_t code, const Bytes& payload = {}, std::uint32_t flags = 0) {
  return host::MakeCommand(code, payload, flags).block;
}
Bytes AppsCommand(std::uint32_t code, std::uint32_t pid, const Fields& fields) {
  return Command(code, Join({Words({pid, 0, 0, 36}), FieldBuffer(fields)}));
}
Bytes StartFixed(const std::string& app, const std::string& document) {
  return host::StartCommand(host::StartLayout::kFixed, app, {document})->block;
}

const Bytes kStartMarked =
    Command(106, Join({Words({0xFFFFFFFF}), FieldBuffer({{0x200B, TextBytes("/not/this")},
                                                         {0x2016, TextBytes("//Mac/NoShare/a")},
                                                         {7, TextBytes("?")},
                                                         {0x200B, TextBytes(std::string("/bin/sh\0-x", 10))},
                                                         {0x2016, TextBytes("/b c")}})}));
const Fields kTwoLists{{7, {}}, {0x2006, Words({60, 0xFFFFFFFE})}, {0x2006, Words({50})}};

Fields Hiding(const Bytes& excluded) {
  return {{0x2006, Words({60, 77, 50})},
          {0x2010, Words({5})},
          {0x2011, Words({6, 99})},
          {0x200F, Join({excluded, TextBytes("odd")})}};
}

class HostCommandsTest : public ::testing::Test {
 protected:
  // The effects of a command while processes 50 and 60 are registered. The command is copied into an allocation of
  // exactly its size, so that the sanitizer reports each read after its end.
  Texts EffectsOf(const Bytes& block) {
    effects_.clear();
    *registry_.Lock() = {{50, {{100, 8}, {101, 6}}}, {60, {{102, 7}, {103, 101}}}};
    // A copy has no spare room, so the sanitizer sees a read behind it.
    const Bytes received(block);  // NOLINT(performance-unnecessary-copy-initialization)
    commands_.Execute(std::as_bytes(std::span(received)));
    const auto text = [](const char* what, std::size_t number) { return what + std::to_string(number); };
    while (const std::optional<WindowRequest> request = requests_.TakeFirst()) {
      effects_.push_back(
          std::visit(Overloaded{[&](const ActivateRequest& activate) { return text("activate ", activate.window); },
                                [&](const MinimizeRequest& minimize) { return text("minimize ", minimize.window); },
                                [&](const CloseRequest& close) { return text("close ", close.windows.size()); },
                                [](const ReenumerateRequest&) { return std::string("reenumerate"); }},
                     *request));
    }
    return effects_;
  }

  bool Send(const TgRequest& request) {
    registry_.ProcessCount();  // hangs if the sender holds the lock
    on_send_();
    const host::Notification message = HostView(request);
    if (const auto* reply = std::get_if<host::HiddenWindows>(&message)) {
      effects_.push_back(host::Format("reply %u %u:", reply->context_a, reply->context_b));
      for (const std::uint32_t window : reply->windows) {
        effects_.back() += " " + std::to_string(window);
      }
    }
    return false;
  }

  LogCapture log_;
  RunningAppRegistry registry_;
  WindowRequestQueue requests_;
  Texts effects_;
  std::function<void()> on_send_ = [] {};
  GuestCommands host_{std::bind_front(&HostCommandsTest::Send, this)};
  HostCommands commands_{
      host_, registry_, requests_,
      ProcessEffects{.launch = [this](const std::string&, const Texts& arguments) { effects_ = arguments; },
                     .kill =
                         [this](pid_t pid, int number) {
                           effects_.push_back(host::Format("kill %d %d", pid, number));
                           return 0;
                         }}};
};

TEST_F(HostCommandsTest, HaveTheEffectsThatTheirBytesDescribe) {
  const TempDir files;
  const std::string entry = files.Write("x.desktop", "[Desktop Entry]\nExec=gedit -n %U\n");
  std::filesystem::permissions(entry, std::filesystem::perms::owner_all);  // executable, but still a desktop entry
  const auto own_pid = static_cast<std::uint32_t>(getpid());
  const struct {
    Bytes block;
    Texts effects;
  } rows[] = {
      {kStartMarked, {"/bin/sh", "//Mac/NoShare/a", "/b c"}},
      {StartFixed(entry, "//.qsf/NoShare/a"), {"gedit", "-n", "//.qsf/NoShare/a"}},
      // A program that is searched for in PATH; and 9 received bytes after the end of the command.
      {Join({StartFixed("xterm", ""), Bytes(9)}), {"xterm"}},
      {Command(106, Words({0xFFFFFFFF})), {}},
      {Command(106, Join({Text16("/bin/sh"), Bytes(521)})), {}},
      {Command(107, Words({50})), {"close 2"}},
      {Command(107, Words({50}), 0x21), {"kill 50 9"}},
      {Command(107, Words({51})), {"kill 51 15"}},
      {Command(107, Words({own_pid}), 0x20), {}},
      {Command(107, Words({own_pid})), {"kill " + std::to_string(own_pid) + " 15"}},
      {Command(107, Words({0}), 0x20), {}},
      {Command(107, Words({0xFFFFFFFF})), {}},
      // The exclusion applies to client 101, not to top-level window 101.
      {AppsCommand(108, 9, Hiding(Words({101, 0}))),
       {"reply 5 6: 101 102 100", "minimize 102", "minimize 101", "minimize 100"}},
      {AppsCommand(108, 9, Hiding(Words({6, 0, 7, 0, 8, 0, 101, 0}))), {}},
      {AppsCommand(108, 60, {{0x2006, TextBytes("xyz")}, {0x200F, Words({7, 0})}}), {"reply 0 0: 103", "minimize 103"}},
      {Command(108, Words({60})), {"reply 0 0: 102 103", "minimize 102", "minimize 103"}},
      {AppsCommand(108, 50, {{0x2006, Words({60, 50, 60})}, {0x200F, Words({8, 0, 101, 0, 6, 0, 8, 0})}}),
       {"reply 0 0: 102", "minimize 102"}},
      {AppsCommand(109, 50, {{0x2006, Words({50, 60, 50, 61, 60})}}),
       {"activate 101", "activate 100", "activate 102", "activate 103"}},
      {AppsCommand(138, 60, {{0x2006, TextBytes("xyz")}}), {"activate 102", "activate 103"}},
      {AppsCommand(109, 50, kTwoLists), {"activate 102", "activate 103"}},
      {Command(109, Words({50})), {"activate 101", "activate 100"}},
      {Command(111, Words({0})), {}},
      {Words({1, 2, 0xFFFFFFFF, 0, 0}), {}},  // this size means that there is no command
      {Command(0x10001), {}},
      {Command(1), {"reenumerate"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(EffectsOf(row.block), row.effects) << "row " << &row - rows;
  }
  const auto quit_this_thread = [this] {
    return EffectsOf(Command(107, Words({static_cast<std::uint32_t>(gettid())}), 0x20));
  };
  EXPECT_EQ(std::async(std::launch::async, quit_this_thread).get(), Texts{});
}

// Each command is cut at every length, with its original size field and with one that fits the cut. Nothing after the
// cut may be read.
TEST_F(HostCommandsTest, NothingIsReadAfterTheEndOfACommand) {
  for (const Bytes& whole : {StartFixed("/bin/sh", "/a"), kStartMarked, Command(107, Words({50})),
                             AppsCommand(108, 50, Hiding(Words({7, 0}))), AppsCommand(109, 50, kTwoLists)}) {
    for (Bytes cut = whole; !cut.empty(); cut.pop_back()) {
      EXPECT_EQ(EffectsOf(cut).empty(), cut.size() < whole.size());
      if (cut.size() >= kHostCommandHeaderSize) {
        Bytes shorter = cut;
        host::StoreU32(shorter, 16, static_cast<std::uint32_t>(cut.size() - kHostCommandHeaderSize));
        EffectsOf(shorter);
      }
    }
  }
}

// The thread fetches nothing before Begin(). The first fetch fails for lack of memory, and the next one still runs.
TEST_F(HostCommandsTest, ThreadFetchesBetweenBeginAndStop) {
  std::atomic<int> fetches{0};
  std::promise<void> fetched_twice;
  on_send_ = [&] {
    if (++fetches == 1) {
      throw std::bad_alloc();
    }
    fetched_twice.set_value();
  };
  commands_.HoldBack();
  std::thread thread([this] { commands_.HostCommandThread(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(fetches.load(), 0);
  commands_.Begin();
  fetched_twice.get_future().wait();
  commands_.RequestStop();
  thread.join();
  EXPECT_EQ(log_.Texts(),
            (Texts{"Error: Host command dropped: std::bad_alloc", "Error: Host command TG request failed"}));
}

}  // namespace
}  // namespace qel::test
