#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/window_tracker.h"

#include <functional>
#include <string>
#include <vector>

#include "apps/desktop_entry_match.h"
#include "apps/process_identity.h"
#include "host/bytes.h"
#include "host/notifications.h"
#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using namespace std::string_literals;
using Messages = std::vector<std::string>;

const std::string kFinished = host::KindName(host::MessageKind::kFinishEnum);

// Calls a function before each of the agent's calls that wait for a reply.
class CallWatch {
 public:
  explicit CallWatch(std::function<void()> before_call) {
    saved_ = x_api;
    before_call_ = std::move(before_call);
    Wrap<&XFunctionTable::XGetWindowProperty>();
    Wrap<&XFunctionTable::XQueryTree>();
    Wrap<&XFunctionTable::XGetWindowAttributes>();
  }
  ~CallWatch() { x_api = saved_; }

 private:
  template <auto kFunction>
  static void Wrap() {
    x_api.*kFunction = [](auto... arguments) { return before_call_(), (saved_.*kFunction)(arguments...); };
  }
  static inline std::function<void()> before_call_;
  static inline XFunctionTable saved_;
};

class WindowTrackerTest : public ::testing::Test {
 protected:
  WindowTrackerTest() {
    for (const char* const id : {"firefox.desktop", "Upper.desktop", "gnome-terminal.desktop", "x-.desktop"}) {
      agent_.entries.Fill(agent_.entries.GetDesktopEntry(id),
                          {.path = "/bin/known", .name = id, .icon = {}, .exec = {}, .categories = {}}, false);
    }
  }

  // What the host is told of a window without a title.
  static std::string PlainlyAdded(Window toplevel) { return Added(toplevel, OwnName(), OwnName()); }
  static std::string OwnName() { return BaseName(ExecutablePath(getpid())); }
  static std::string Titled(Window window, const char* title) { return host::Format("title %lx ", window) + title; }

  // An unmapped window that has a property.
  Window With(const char* property, const char* type, int format, const std::vector<long>& items) {
    const Window window = desktop_.Make({.mapped = false});
    desktop_.Set(window, property, type, format, items);
    return window;
  }
  Window Map(Window window) {
    XMapWindow(desktop_.Connection(), window);
    return window;
  }
  // What the host is told when the window gets an icon.
  Messages SetIcon(Window window, const std::vector<long>& items) {
    desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, items);
    return agent_.Pump();
  }
  // An item of _NET_WM_STATE and the like.
  long Item(const char* atom) { return static_cast<long>(desktop_.AtomOf(atom)); }

  TestDesktop desktop_;
  TestAgent agent_{desktop_};
};

// The other rules: see what makes it look again.
TEST_F(WindowTrackerTest, AcceptsWindowsByTheRules) {
  const auto framed = [&](const char* frame_type) {
    return desktop_.Make({.parent = desktop_.Make({.type = frame_type, .pid = 0, .listed = false})});
  };
  const struct {
    const char* what;
    bool accepted;
    Window window;
  } rows[] = {
      {"type unknown", false, desktop_.Make({.type = "WM_CLASS"})},
      {"type of another format", false, Map(With("_NET_WM_WINDOW_TYPE", "ATOM", 8, {4}))},
      {"in a frame of unknown type", true, framed("WM_CLASS")},
      {"in a frame that answers for it", false, framed("_NET_WM_WINDOW_TYPE_UTILITY")},
      {"too narrow", false, desktop_.Make({.width = 1, .height = 600})},
      {"too low", false, desktop_.Make({.width = 600, .height = 1})},
      {"not listed", false, desktop_.Make({.listed = false})},
      {"process id negative", false, desktop_.Make({.pid = -5})},
      {"process id of another format", false, Map(With("_NET_WM_PID", "CARDINAL", 8, {1}))},
      {"process id empty", false, Map(With("_NET_WM_PID", "CARDINAL", 32, {}))},
  };
  desktop_.Sync();
  for (const auto& row : rows) {
    for (const std::size_t messages : {1U, 0U}) {  // looked at again it is not reported again
      EXPECT_EQ(agent_.Tracker().TryRegisterWindow(row.window), row.accepted) << row.what;
      EXPECT_EQ(agent_.TakeMessages().size(), row.accepted ? messages : 0) << row.what;
    }
  }
}

// A name comes from the desktop entry, else from the leader's title, else from the executable; a title never comes from
// the first two.
TEST_F(WindowTrackerTest, NamesApplicationsByEntryLeaderAndExecutable) {
  const Window leader = desktop_.Make({.type = nullptr, .mapped = false, .listed = false});
  desktop_.SetTitle(leader, "Leader");
  constexpr Window kItself = 1;
  const struct {
    std::string wm_class, title;
    Window leader;
    std::string name, told_title;
  } rows[] = {
      {"firefox\0Upper\0"s, "Own", leader, "firefox.desktop", "Own"},
      {"Navigator\0Upper\0"s, "", leader, "Upper.desktop", "known"},
      {"Navigator\0FireFox\0more\0"s, "", None, "firefox.desktop", "known"},
      {"terminal", "", None, "gnome-terminal.desktop", "known"},
      {"\0Upper\0"s, "", None, "x-.desktop", "known"},  // an empty name is a name
      {"", "", None, "x-.desktop", "known"},
      {"unterminated\0Upper"s, "", None, OwnName(), OwnName()},
      {"unknown\0\0"s, "Own", leader, "Leader", "Own"},
      {std::string(100'000, '/'), "", leader, "Leader", OwnName()},
      {"unknown", "Own", kItself, "Own", "Own"},
      {"unknown", "\0hidden"s, 12345, OwnName(), OwnName()},
  };
  for (const auto& row : rows) {
    const Window window = With("WM_CLASS", "STRING", 8, {row.wm_class.begin(), row.wm_class.end()});
    desktop_.SetTitle(window, row.title);
    desktop_.SetLeader(window, row.leader == kItself ? window : row.leader);
    Map(window);
    EXPECT_EQ(agent_.Pump(), Messages{Added(window, row.name, row.told_title)});
  }
  const Window odd = Map(With("WM_CLASS", "CARDINAL", 32, {1}));
  const Window plain = Map(desktop_.Make());
  EXPECT_EQ(agent_.Pump(), (Messages{Added(odd, "x-.desktop", "known"), PlainlyAdded(plain)}));
}

// Each search of the chain has its line.
TEST_F(WindowTrackerTest, LeadersAnswerForTheirWindowsUntilTheChainEnds) {
  const auto led = [this](Window window, Window leader) {
    desktop_.SetLeader(window, leader);
    return window;
  };
  const auto make = [&](const std::string& wm_class) {
    return With("WM_CLASS", "STRING", 8, {wm_class.begin(), wm_class.end()});
  };
  const auto found = [](Window window) { return host::Format("Desktop file: wnd=%lx id='firefox.desktop'", window); };
  const auto missed = [](Window window) { return host::Format("Desktop file: wnd=%lx not found", window); };
  const auto search = [this](Window window) {
    desktop_.Sync();
    const LogCapture log;
    MatchDesktopEntry(agent_.GetSession(), agent_.entries, window);
    return log.Texts();
  };
  const Window leader = make("firefox");
  const Window middle = led(make("unknown"), leader);
  const Window window = led(desktop_.Make(), middle);
  EXPECT_EQ(search(window), (Messages{found(leader), found(middle), found(window)}));

  const Window own_leader = make("unknown");
  EXPECT_EQ(search(led(own_leader, own_leader)), Messages{});
  const Window follower = led(desktop_.Make(), own_leader);
  EXPECT_EQ(search(follower), Messages{missed(follower)});
  const Window ping = desktop_.Make();
  const Window pong = led(desktop_.Make(), ping);
  EXPECT_EQ(search(led(ping, pong)), (Messages{missed(pong), missed(ping)}));

  Window endless = leader;
  for (int i = 0; i < 20; ++i) {
    endless = led(desktop_.Make(), endless);
  }
  EXPECT_EQ(search(endless).back(), missed(endless));
  EXPECT_EQ(search(0x7777777), Messages{missed(0x7777777)}) << "no window";
}

TEST_F(WindowTrackerTest, EnumeratesDeepTreesOnceAndWatchesFrames) {
  const Window plain = desktop_.Make();
  const Window frame = desktop_.Make(kFrame);
  WindowOptions nested = kFrame;
  nested.parent = frame;
  for (int depth = 0; depth < 5000; ++depth) {
    nested.parent = desktop_.Make(nested);
  }
  const Window client = desktop_.Make({.parent = nested.parent});
  desktop_.Set(client, "WM_STATE", "WM_STATE", 32, {1, 0});
  desktop_.Make({.parent = frame});  // a second client of a frame is not looked for
  TestAgent late(desktop_);
  EXPECT_EQ(FindClientWindow(late.GetSession(), frame), client);
  int calls = 0;
  {
    const CallWatch watch([&calls] { ++calls; });
    late.Enumerate();
  }
  EXPECT_EQ(late.TakeMessages(), (Messages{PlainlyAdded(plain), PlainlyAdded(frame), kFinished}));
  // The client list, the root's children, two windows, and for each one around a client its children and its type.
  EXPECT_LE(calls, 1 + 1 + 2 * 8 + 5001 * 2);
  late.Enumerate();
  EXPECT_EQ(late.TakeMessages(), Messages{kFinished});
  desktop_.Destroy(client);
  EXPECT_EQ(late.Pump(), Messages{Removed(frame)});
}

TEST_F(WindowTrackerTest, SurvivesWindowsThatDieAtAnyMoment) {
  bool alive = false;
  for (int fatal_call = 1; !alive; ++fatal_call) {
    const Window frame = desktop_.Make(kFrame);
    desktop_.Make({.parent = frame});
    TestAgent agent(desktop_);
    int calls = 0;
    {
      const CallWatch watch([&] {
        if (++calls == fatal_call) {
          desktop_.Destroy(frame);
        }
      });
      agent.Enumerate();
    }
    alive = calls < fatal_call;
    EXPECT_EQ(agent.TakeMessages().size(), agent.registry.ProcessCount() + 1) << "death at call " << fatal_call;
    EXPECT_TRUE(!alive || agent.registry.ProcessCount() == 1);
  }
}

TEST_F(WindowTrackerTest, FollowsAWindowThroughItsLife) {
  const Window frame = desktop_.Make(kFrame);
  const Window window = desktop_.Make({.mapped = false});
  XReparentWindow(desktop_.Connection(), window, frame, 0, 0);
  EXPECT_EQ(agent_.Pump(), Messages{});
  const auto show = [&] {
    XUnmapWindow(desktop_.Connection(), window);
    XMapWindow(desktop_.Connection(), window);
    return agent_.Pump();
  };
  desktop_.SetTitle(window, "early");
  agent_.Tracker().EnumerateWindows();
  EXPECT_EQ(show(), (Messages{Added(frame, OwnName(), "early"), kFinished})) << "the title is told once";
  EXPECT_EQ(show(), Messages{}) << "it stays registered";
  EXPECT_EQ(SetIcon(window, {1, 2, 0, 0}), Messages{host::Format("icon %lx 1x2", window)});
  EXPECT_EQ(SetIcon(window, {1, 2, 0}), Messages{}) << "an empty icon is not sent";
  desktop_.Set(window, "_NET_WM_PID", "CARDINAL", 32, {getppid()});
  EXPECT_EQ(show().size(), 1u) << "for another process it is another window";
  desktop_.Destroy(window);
  EXPECT_EQ(agent_.Pump(), (Messages{Removed(frame), Removed(frame)})) << "for each process";
  EXPECT_EQ(agent_.registry.ProcessCount(), 0u);

  const Window unregistered = desktop_.Make({.pid = 0, .listed = false});
  agent_.Pump();
  desktop_.SetTitle(unregistered, "Any");
  EXPECT_EQ(agent_.Pump(), Messages{Titled(unregistered, "Any")}) << "reported all the same";
  EXPECT_EQ(SetIcon(unregistered, {1, 2, 0, 0}), Messages{});
}

TEST_F(WindowTrackerTest, LooksAgainWhenWhatFailedATestChanges) {
  const auto set = [this](const char* property, const char* type, long item) {
    return [=, this](Window window) { desktop_.Set(window, property, type, 32, {item}); };
  };
  const auto set_type = set("_NET_WM_WINDOW_TYPE", "ATOM", Item("_NET_WM_WINDOW_TYPE_NORMAL"));
  const auto map = [this](Window window) { Map(window); };
  const Window late_frame = desktop_.Make({.type = nullptr, .pid = 0, .mapped = false, .listed = false});
  const Window typed_frame = desktop_.Make({.type = "WM_CLASS", .pid = 0, .listed = false});
  const struct {
    const char* what;
    Window window;
    std::function<void(Window)> change;
    Window frame = None;  // to be changed in its place
  } rows[] = {
      {"type", desktop_.Make({.type = nullptr}), set_type},
      {"type of the frame", desktop_.Make({.parent = typed_frame, .type = nullptr}), set_type, typed_frame},
      {"process id", desktop_.Make({.pid = 0}), set("_NET_WM_PID", "CARDINAL", getpid())},
      {"size", desktop_.Make({.width = 1, .height = 1}),
       [this](Window window) { XResizeWindow(desktop_.Connection(), window, 2, 2); }},
      {"map state", desktop_.Make({.mapped = false}), map},
      {"map state of the frame", desktop_.Make({.parent = late_frame}), map, late_frame},
      {"hidden state", desktop_.Make({.mapped = false}), set("_NET_WM_STATE", "ATOM", Item("_NET_WM_STATE_HIDDEN"))},
      {"listed", desktop_.Make({.listed = false}),
       [this](Window window) { desktop_.SetClientList({static_cast<long>(window)}); }},
  };
  desktop_.Sync();
  TestAgent late(desktop_);
  late.Enumerate();
  EXPECT_EQ(late.TakeMessages(), Messages{kFinished});
  EXPECT_EQ(agent_.Pump(), Messages{});
  for (const auto& row : rows) {
    const Window toplevel = row.frame != None ? row.frame : row.window;
    row.change(toplevel);
    const Messages expected{PlainlyAdded(toplevel)};
    EXPECT_EQ(agent_.Pump(), expected) << row.what;
    EXPECT_EQ(late.Pump(), expected) << row.what << ", which was there before";
  }
}

TEST_F(WindowTrackerTest, TellsOnlyTheLastOfManyChangesAndNothingOfWhatIsGone) {
  const Window window = desktop_.Make();
  EXPECT_EQ(agent_.Pump().size(), 1u);
  const Window gone = desktop_.Make();
  for (int i = 0; i < 1000; ++i) {
    desktop_.SetTitle(window, "title " + std::to_string(i));
    desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, {1, 1, i});
    desktop_.SetTitle(gone, "title");
  }
  desktop_.Destroy(gone);
  EXPECT_EQ(agent_.Pump(), (Messages{Titled(window, "title 999"), host::Format("icon %lx 1x1", window)}));
  // A registered window that goes in the middle of its report is taken back once.
  const Window brief = desktop_.Make();
  agent_.on_message = [&] { desktop_.Destroy(brief); };
  EXPECT_EQ(agent_.Pump(), (Messages{PlainlyAdded(brief), Removed(brief)}));
}

TEST_F(WindowTrackerTest, HearsANoisyWindowNowAndThenAndBelievesTheServerAlone) {
  const Window window = desktop_.Make();
  const Window other = desktop_.Make();
  EXPECT_EQ(agent_.Pump().size(), 2u);
  const auto make_noise = [&] {
    for (int i = 0; i < 600; ++i) {
      desktop_.Set(window, "WM_NAME", "STRING", 8, {i % 100});
    }
    Messages messages = agent_.Pump();
    XSync(agent_.Connection(), False);  // the server knows now that the window is not to be heard
    return messages;
  };
  EXPECT_EQ(make_noise(), Messages{});
  desktop_.SetTitle(window, "unheard");
  desktop_.SetTitle(other, "heard");
  EXPECT_EQ(agent_.Pump(), Messages{Titled(other, "heard")});
  agent_.Tracker().BeginPeriod();
  EXPECT_EQ(agent_.Pump(), Messages{Titled(window, "unheard")});
  EXPECT_EQ(make_noise(), Messages{});
  agent_.Tracker().BeginPeriod();
  EXPECT_EQ(agent_.Pump(), Messages{}) << "nothing that is told has changed";
  agent_.Tracker().BeginPeriod();
  desktop_.SetTitle(window, "quiet again");
  EXPECT_EQ(agent_.Pump(), Messages{Titled(window, "quiet again")});

  XEvent event{};
  event.xdestroywindow.type = DestroyNotify;
  event.xdestroywindow.event = DefaultRootWindow(desktop_.Connection());
  event.xdestroywindow.window = other;
  XSendEvent(desktop_.Connection(), event.xdestroywindow.event, False, SubstructureNotifyMask, &event);
  EXPECT_EQ(agent_.Pump(), Messages{}) << "the window is still there";
}

// The host forgets everything while a window is being told: the next enumeration makes it known, once and for all.
TEST_F(WindowTrackerTest, AResetInTheMiddleOfAReportLosesNothing) {
  for (const bool stays : {true, false}) {
    const Window window = desktop_.Make();
    agent_.on_message = [&] {
      agent_.registry.ClearRegistry();
      if (!stays) {
        desktop_.Destroy(window);
      }
    };
    EXPECT_EQ(agent_.Pump(), Messages{PlainlyAdded(window)});
    agent_.Enumerate();
    EXPECT_EQ(agent_.TakeMessages(),
              stays ? (Messages{PlainlyAdded(window), kFinished}) : (Messages{kFinished, Removed(window)}));
    if (stays) {
      desktop_.Destroy(window);
      EXPECT_EQ(agent_.Pump(), Messages{Removed(window)});
    }
  }
}

TEST_F(WindowTrackerTest, TakesIconsOnlyAsFarAsTheyReach) {
  constexpr auto kMost = static_cast<long>(0xFFFFFFFFUL);
  const struct {
    std::vector<std::pair<long, long>> blocks;  // widths and heights; the pixels follow
    std::vector<long> rest;
    const char* expected;
  } rows[] = {
      {{{16, 16}, {48, 48}, {32, 32}}, {}, "48x48+"},
      {{{2, 8}, {4, 4}}, {}, "2x8"},
      {{}, {1, 1}, "0x0"},
      {{}, {0, 0, 0, 5, 1, 1, 7}, "1x1"},
      {{}, {kMost, kMost, 0}, "0x0"},
      {{{3, 3}}, {0x10000, 0x10000, 1, 2, 3}, "3x3"},  // 2 to the power of 32 pixels
      {{{16, 16}}, {5}, "16x16+"},
  };
  for (const auto& row : rows) {
    std::vector<long> items;
    for (const auto& [width, height] : row.blocks) {
      items.insert(items.end(), {width, height});
      items.resize(items.size() + static_cast<std::size_t>(width * height));
    }
    items.insert(items.end(), row.rest.begin(), row.rest.end());
    const Window window = Map(With("_NET_WM_ICON", "CARDINAL", 32, items));
    EXPECT_EQ(agent_.Pump(), Messages{Added(window, OwnName(), OwnName(), row.expected)});
  }
}

}  // namespace
}  // namespace qel::test
