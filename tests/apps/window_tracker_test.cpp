#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/window_tracker.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

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

class WindowTrackerTest : public ::testing::Test {
 protected:
  WindowTrackerTest() {
    for (const char* const id : {"firefox.desktop", "Upper.desktop", "gnome-terminal.desktop", "x-.desktop"}) {
      agent_.entries.Fill(agent_.entries.GetDesktopEntry(id),
                          {.path = "/bin/known", .name = id, .icon = {}, .exec = {}, .categories = {}}, false);
    }
  }

  // The message for a new window that has no title of its own.
  static std::string PlainlyAdded(Window toplevel) { return Added(toplevel, OwnName(), OwnName()); }
  static std::string OwnName() { return BaseName(ExecutablePath(getpid())); }
  static std::string Titled(Window window, const char* title) { return host::Format("title %lx ", window) + title; }

  // Makes an unmapped window with this property.
  Window With(const char* property, const char* type, int format, const std::vector<long>& items) {
    const Window window = desktop_.Make({.mapped = false});
    desktop_.Set(window, property, type, format, items);
    return window;
  }
  Window WithClass(const std::string& wm_class) {
    return With("WM_CLASS", "STRING", 8, {wm_class.begin(), wm_class.end()});
  }
  Window Led(Window window, Window leader) {
    desktop_.Set(window, "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(leader)});
    return window;
  }
  Window Map(Window window) {
    XMapWindow(desktop_.Connection(), window);
    return window;
  }
  // Sets the icon, and returns the messages that follow.
  Messages SetIcon(Window window, const std::vector<long>& items) {
    desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, items);
    return agent_.Pump();
  }

  TestDesktop desktop_;
  TestAgent agent_{desktop_};
};

TEST_F(WindowTrackerTest, AcceptsWindowsByTheRules) {
  const auto frame = [this](const char* type) { return desktop_.Make({.type = type, .pid = 0, .listed = false}); };
  const Window unknown_frame = frame("WM_CLASS");
  const Window utility_frame = frame("_NET_WM_WINDOW_TYPE_UTILITY");  // its type decides for its client
  const Window accepted = desktop_.Make({.parent = unknown_frame});
  const Window rejected[] = {
      desktop_.Make({.parent = utility_frame}),         desktop_.Make({.width = 1, .height = 600}),
      desktop_.Make({.width = 600, .height = 1}),       desktop_.Make({.pid = -5}),
      Map(With("_NET_WM_PID", "CARDINAL", 8, {1})),     Map(With("_NET_WM_PID", "CARDINAL", 32, {})),
      Map(With("_NET_WM_WINDOW_TYPE", "ATOM", 8, {4})),
  };
  desktop_.Sync();
  for (const Window& window : rejected) {
    EXPECT_FALSE(agent_.Tracker().TryRegisterWindow(window)) << "window " << &window - rejected;
  }
  EXPECT_TRUE(agent_.Tracker().TryRegisterWindow(accepted));
  EXPECT_EQ(agent_.TakeMessages(), Messages{PlainlyAdded(unknown_frame)});
  desktop_.Set(utility_frame, "_NET_WM_WINDOW_TYPE", "ATOM", 32, {});
  EXPECT_EQ(agent_.Pump(), Messages{PlainlyAdded(utility_frame)});
}

// The name is that of the desktop entry, else the leader's title, else the name of the executable. The first two are
// never used as the window's title.
TEST_F(WindowTrackerTest, NamesApplicationsByEntryLeaderAndExecutable) {
  const Window leader = desktop_.Make({.type = nullptr, .mapped = false, .listed = false});
  desktop_.SetTitle(leader, "Leader");
  constexpr Window kItself = 1;
  const Window known = WithClass("firefox");
  const Window circle = desktop_.Make({.mapped = false});
  Led(circle, Led(desktop_.Make({.mapped = false}), circle));
  Window endless = known;
  for (int i = 0; i < 20; ++i) {
    endless = Led(desktop_.Make({.mapped = false}), endless);
  }
  const struct {
    std::string wm_class, title;
    Window leader;
    std::string name, told_title;
    int searches = 1;  // for desktop entries: one for the window, and one for each leader that is tried
  } rows[] = {
      {"firefox\0Upper\0"s, "Own", leader, "firefox.desktop", "Own"},
      {"Navigator\0Upper\0"s, "", leader, "Upper.desktop", "known"},
      {"Navigator\0FireFox\0more\0"s, "", None, "firefox.desktop", "known"},
      {"terminal", "", None, "gnome-terminal.desktop", "known"},
      {"\0Upper\0"s, "", None, "x-.desktop", "known"},  // an empty name is searched for, too
      {"unterminated\0Upper"s, "", None, OwnName(), OwnName()},
      {"unknown\0\0"s, "Own", leader, "Leader", "Own", 2},
      {std::string(100'000, '/'), "", leader, "Leader", OwnName(), 2},
      {"unknown", "Own", kItself, "Own", "Own", 0},
      {"unknown", "\0hidden"s, 12345, OwnName(), OwnName(), 2},
      {"unknown", "Own", Led(WithClass("unknown"), known), "firefox.desktop", "Own", 3},
      {"unknown", "", circle, OwnName(), OwnName(), 3},
      {"unknown", "", endless, OwnName(), OwnName(), 8},
  };
  for (const auto& row : rows) {
    const Window window = WithClass(row.wm_class);
    desktop_.SetTitle(window, row.title);
    Map(Led(window, row.leader == kItself ? window : row.leader));
    const LogCapture log;
    EXPECT_EQ(agent_.Pump(), Messages{Added(window, row.name, row.told_title)});
    EXPECT_EQ(std::ranges::count_if(log.Texts(), [](const auto& line) { return line.starts_with("Desktop file: "); }),
              row.searches)
        << row.name;
  }
  const Window odd = Map(With("WM_CLASS", "CARDINAL", 32, {1}));
  const Window plain = desktop_.Make();
  EXPECT_EQ(agent_.Pump(), (Messages{Added(odd, "x-.desktop", "known"), PlainlyAdded(plain)}));
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
  desktop_.Make({.parent = frame});  // a second client of the frame, which is ignored
  TestAgent late(desktop_);
  EXPECT_EQ(FindClientWindow(late.GetSession(), frame), client);
  const unsigned long first_request = NextRequest(late.Connection());
  late.Enumerate();
  const unsigned long requests = NextRequest(late.Connection()) - first_request;
  EXPECT_EQ(late.TakeMessages(), (Messages{PlainlyAdded(plain), PlainlyAdded(frame), kFinished}));
  EXPECT_LE(requests, 50U + 3 * 5001) << "three requests per frame: its children, its type, its events";
  late.Enumerate();
  EXPECT_EQ(late.TakeMessages(), Messages{kFinished});
  desktop_.Destroy(client);
  EXPECT_EQ(late.Pump(), Messages{Removed(frame)});
}

TEST_F(WindowTrackerTest, FollowsAWindowThroughItsLife) {
  const Window frame = desktop_.Make(kFrame);
  const Window window = desktop_.Make({.mapped = false});
  XReparentWindow(desktop_.Connection(), window, frame, 0, 0);
  EXPECT_EQ(agent_.Pump(), Messages{});
  desktop_.SetTitle(window, "early");
  agent_.Tracker().EnumerateWindows();
  Map(window);
  EXPECT_EQ(agent_.Pump(), (Messages{Added(frame, OwnName(), "early"), kFinished})) << "the title is sent once";
  EXPECT_EQ(SetIcon(window, {1, 2, 0, 0}), Messages{host::Format("icon %lx 1x2", window)});
  EXPECT_EQ(SetIcon(window, {1, 2, 0}), Messages{}) << "an empty icon is not sent";
  desktop_.Set(window, "_NET_WM_PID", "CARDINAL", 32, {getppid()});
  XUnmapWindow(desktop_.Connection(), window);
  Map(window);
  EXPECT_EQ(agent_.Pump().size(), 1u) << "the window of another process is reported again";
  desktop_.SetTitle(window, "last");
  desktop_.Destroy(window);
  EXPECT_EQ(agent_.Pump(), (Messages{Removed(frame), Removed(frame)})) << "one message per process, and no title";
  EXPECT_EQ(agent_.registry.ProcessCount(), 0u);

  const Window brief = desktop_.Make();
  agent_.on_message = [&] { desktop_.Destroy(brief); };  // while it is being reported
  EXPECT_EQ(agent_.Pump(), (Messages{PlainlyAdded(brief), Removed(brief)}));

  const Window twice = desktop_.Make({.mapped = false});
  for (const std::vector<long>& list : {std::vector<long>(2, static_cast<long>(twice)), {static_cast<long>(twice)}}) {
    desktop_.SetClientList(list);
    EXPECT_EQ(agent_.Pump(), Messages{});
  }
  Map(twice);
  EXPECT_EQ(agent_.Pump(), Messages{PlainlyAdded(twice)}) << "it is still listed once";

  const Window unregistered = desktop_.Make({.pid = 0, .listed = false});
  agent_.Pump();
  desktop_.SetTitle(unregistered, "Any");
  EXPECT_EQ(SetIcon(unregistered, {1, 2, 0, 0}), Messages{Titled(unregistered, "Any")}) << "only the title is sent";
}

TEST_F(WindowTrackerTest, LimitsANoisyWindowAndIgnoresForgedEvents) {
  const Window window = desktop_.Make();
  const Window other = desktop_.Make();
  EXPECT_EQ(agent_.Pump().size(), 2u);
  const auto make_noise = [&] {
    for (int i = 0; i < 600; ++i) {
      desktop_.Set(window, "WM_NAME", "STRING", 8, {i % 100});
    }
    EXPECT_EQ(agent_.Pump(), Messages{});
    XSync(agent_.Connection(), False);  // the server now sends no more events of the window
  };
  make_noise();
  desktop_.SetTitle(window, "unheard");
  EXPECT_EQ(agent_.Pump(), Messages{});
  agent_.Tracker().BeginPeriod();
  EXPECT_EQ(agent_.Pump(), Messages{Titled(window, "unheard")});
  make_noise();
  agent_.Tracker().BeginPeriod();
  EXPECT_EQ(agent_.Pump(), Messages{}) << "title and icon have not changed";

  XEvent event{};
  event.xdestroywindow.type = DestroyNotify;
  event.xdestroywindow.event = DefaultRootWindow(desktop_.Connection());
  event.xdestroywindow.window = other;
  XSendEvent(desktop_.Connection(), event.xdestroywindow.event, False, SubstructureNotifyMask, &event);
  EXPECT_EQ(agent_.Pump(), Messages{}) << "the window is still there";
}

// The registry is cleared while a window is being reported. The next enumeration reports the window exactly once.
TEST_F(WindowTrackerTest, AResetDuringAReportLosesNothing) {
  for (const bool stays : {false, true}) {
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
  }
}

}  // namespace
}  // namespace qel::test
