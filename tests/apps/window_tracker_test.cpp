#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/window_tracker.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "apps/process_identity.h"
#include "apps/window_properties.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using Messages = std::vector<std::string>;

// Calls a function before each of the agent's calls that wait for a reply.
class CallWatch {
 public:
  explicit CallWatch(std::function<void()> before_call) {
    saved_ = x_api;
    before_call_ = std::move(before_call);
    x_api.XGetWindowProperty = [](auto... arguments) {
      return before_call_(), saved_.XGetWindowProperty(arguments...);
    };
    x_api.XQueryTree = [](auto... arguments) { return before_call_(), saved_.XQueryTree(arguments...); };
    x_api.XGetWindowAttributes = [](auto... arguments) {
      return before_call_(), saved_.XGetWindowAttributes(arguments...);
    };
  }
  ~CallWatch() { x_api = saved_; }
  CallWatch(const CallWatch&) = delete;
  CallWatch& operator=(const CallWatch&) = delete;

 private:
  static inline std::function<void()> before_call_;
  static inline XFunctionTable saved_;
};

class WindowTrackerTest : public ::testing::Test {
 protected:
  // What the host is told of a window without a title.
  static std::string PlainlyAdded(Window toplevel) { return Added(toplevel, OwnName(), OwnName()); }
  static std::string OwnName() { return BaseName(ExecutablePath(getpid())); }

  TestDesktop desktop_;
  TestAgent agent_{desktop_};
};

TEST_F(WindowTrackerTest, AcceptsWindowsByTheRules) {
  constexpr const char* kDialog = "_NET_WM_WINDOW_TYPE_DIALOG";
  constexpr const char* kUtility = "_NET_WM_WINDOW_TYPE_UTILITY";
  const auto hidden = static_cast<long>(desktop_.AtomOf("_NET_WM_STATE_HIDDEN"));
  struct Property {
    const char* name;
    const char* type;
    int format;
    std::vector<long> items;
  };
  const struct {
    const char* what;
    bool accepted;
    WindowOptions window = {};
    std::optional<const char*> frame_type = {};  // a frame around it, of a type or without one
    std::optional<Property> property = {};
  } rows[] = {
      {"normal", true},
      {"dialog", true, {.type = kDialog}},
      {"utility", false, {.type = kUtility}},
      {"without a type", false, {.type = nullptr}},
      {"type unknown", false, {.type = "WM_CLASS"}},
      {"type of another format", false, {}, {}, Property{"_NET_WM_WINDOW_TYPE", "ATOM", 8, {4}}},
      {"in a frame", true, {.type = kDialog}, nullptr},
      {"in a frame of unknown type", true, {}, "WM_CLASS"},
      {"in a frame that answers for it", false, {}, kUtility},
      {"smallest", true, {.width = 2, .height = 2}},
      {"too narrow", false, {.width = 1, .height = 600}},
      {"too low", false, {.width = 600, .height = 1}},
      {"not listed", false, {.listed = false}},
      {"unmapped", false, {.mapped = false}},
      {"minimised", true, {.mapped = false}, {}, Property{"_NET_WM_STATE", "ATOM", 32, {1, hidden}}},
      {"without a process", false, {.pid = 0}},
      {"process id negative", false, {.pid = -5}},
      {"process id of another type", false, {}, {}, Property{"_NET_WM_PID", "INTEGER", 32, {1}}},
      {"process id of another format", false, {}, {}, Property{"_NET_WM_PID", "CARDINAL", 8, {1}}},
      {"process id empty", false, {}, {}, Property{"_NET_WM_PID", "CARDINAL", 32, {}}},
  };
  for (const auto& row : rows) {
    WindowOptions options = row.window;
    if (row.frame_type) {
      options.parent = desktop_.Make({.type = *row.frame_type, .pid = 0, .listed = false});
    }
    const Window window = desktop_.Make(options);
    if (row.property) {
      desktop_.Set(window, row.property->name, row.property->type, row.property->format, row.property->items);
    }
    desktop_.Sync();
    EXPECT_EQ(agent_.Tracker().TryRegisterWindow(window), row.accepted) << row.what;
    const Window toplevel = row.frame_type ? options.parent : window;
    EXPECT_EQ(agent_.TakeMessages(), row.accepted ? Messages{PlainlyAdded(toplevel)} : Messages{}) << row.what;
    EXPECT_EQ(agent_.Tracker().TryRegisterWindow(window), row.accepted) << "again: " << row.what;
    EXPECT_EQ(agent_.Pump(), Messages{}) << "again: " << row.what;
  }
}

TEST_F(WindowTrackerTest, NamesApplicationsByLeaderAndTitle) {
  const Window leader = desktop_.Make({.type = nullptr, .mapped = false, .listed = false});
  desktop_.SetTitle(leader, "Leader");
  const auto make = [&](const std::string& title, Window its_leader) {
    const Window window = desktop_.Make({.mapped = false});
    desktop_.SetTitle(window, title);
    desktop_.Set(window, "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(its_leader == 1 ? window : its_leader)});
    XMapWindow(desktop_.Connection(), window);
    return window;
  };
  const Window led = make("Own", leader);
  const Window own = make(std::string("Own\0hidden", 10), 1);
  const Window gone = make("", 12345);
  EXPECT_EQ(agent_.Pump(), (Messages{Added(led, "Leader", "Own"), Added(own, "Own", "Own"), PlainlyAdded(gone)}));
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
    late.Tracker().EnumerateWindows();
  }
  EXPECT_EQ(late.TakeMessages(), (Messages{PlainlyAdded(plain), PlainlyAdded(frame)}));
  // The client list, the root's children, two windows, and for each one around a client its children and its type.
  EXPECT_LE(calls, 1 + 1 + 2 * 8 + 5001 * 2);
  late.Tracker().EnumerateWindows();
  EXPECT_EQ(late.TakeMessages(), Messages{});
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
      agent.Tracker().EnumerateWindows();
    }
    alive = calls < fatal_call;
    EXPECT_EQ(agent.TakeMessages().size(), agent.registry.ProcessCount()) << "death at call " << fatal_call;
    EXPECT_TRUE(!alive || agent.registry.ProcessCount() == 1);
  }
}

TEST_F(WindowTrackerTest, FollowsAWindowThroughItsLife) {
  const Window frame = desktop_.Make(kFrame);
  const Window window = desktop_.Make({.mapped = false});
  EXPECT_EQ(agent_.Pump(), Messages{});
  XReparentWindow(desktop_.Connection(), window, frame, 0, 0);
  XMapWindow(desktop_.Connection(), window);
  EXPECT_EQ(agent_.Pump(), Messages{PlainlyAdded(frame)});
  const std::string id = PlainlyAdded(window).substr(4, PlainlyAdded(window).find(' ', 4) - 4);

  desktop_.SetTitle(window, "New");
  EXPECT_EQ(agent_.Pump(), Messages{"title " + id + " New"});
  desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, {1, 2, 0, 0});
  EXPECT_EQ(agent_.Pump(), Messages{"icon " + id + " 1x2"});
  desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, {1, 2, 0});
  EXPECT_EQ(agent_.Pump(), Messages{}) << "an empty icon is not sent";
  XUnmapWindow(desktop_.Connection(), window);
  XMapWindow(desktop_.Connection(), window);
  EXPECT_EQ(agent_.Pump(), Messages{}) << "it stays registered";
  desktop_.Set(window, "_NET_WM_PID", "CARDINAL", 32, {getppid()});
  XUnmapWindow(desktop_.Connection(), window);
  XMapWindow(desktop_.Connection(), window);
  EXPECT_EQ(agent_.Pump().size(), 1u) << "for another process it is another window";
  desktop_.Destroy(window);
  EXPECT_EQ(agent_.Pump(), Messages{Removed(frame)});
  EXPECT_EQ(agent_.registry.ProcessCount(), 1u);

  const Window unregistered = desktop_.Make({.pid = 0, .listed = false});
  agent_.Pump();
  desktop_.SetTitle(unregistered, "Any");
  EXPECT_EQ(agent_.Pump().size(), 1u) << "titles of unregistered windows are reported too";
  desktop_.Set(unregistered, "_NET_WM_ICON", "CARDINAL", 32, {1, 2, 0, 0});
  EXPECT_EQ(agent_.Pump(), Messages{});
}

TEST_F(WindowTrackerTest, RemovalAlsoFindsDeadProcesses) {
  const auto start = [] {
    char program[] = "sleep";
    char seconds[] = "1000";
    char* arguments[] = {program, seconds, nullptr};
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, arguments, environ), 0);
    return pid;
  };
  const auto end = [](pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  };
  // Processes are looked at in the order of their ids.
  const auto [dying, living] = std::minmax({start(), start()});
  agent_.launched.Add(agent_.launched.Lock(), dying, "sleep");
  const Window first = desktop_.Make({.pid = dying});
  const Window second = desktop_.Make({.pid = dying});
  const Window destroyed = desktop_.Make({.pid = living});
  const Window remaining = desktop_.Make({.pid = living});
  EXPECT_EQ(agent_.Pump().size(), 4u);
  EXPECT_FALSE(agent_.launched.Take(agent_.launched.Lock(), dying)) << "it has shown a window";
  end(dying);
  desktop_.Destroy(destroyed);
  EXPECT_EQ(agent_.Pump(), (Messages{Removed(first), Removed(second), Removed(destroyed)}));
  end(living);
  desktop_.Destroy(first);
  EXPECT_EQ(agent_.Pump(), Messages{Removed(remaining)});
}

TEST_F(WindowTrackerTest, TakesIconsOnlyAsFarAsTheyReach) {
  constexpr long kMost = 0xFFFFFFFF;
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
    const Window window = desktop_.Make({.mapped = false});
    desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, items);
    XMapWindow(desktop_.Connection(), window);
    EXPECT_EQ(agent_.Pump(), Messages{Added(window, OwnName(), OwnName(), row.expected)});
  }
  const Window window = desktop_.Make({.listed = false});
  desktop_.Set(window, "_NET_WM_ICON", "CARDINAL", 32, {1, 1, 0x7A0B0C0D});
  desktop_.Sync();
  IconImage large;
  IconImage small;
  ReadWindowIcons(agent_.GetSession(), window, large, small);
  EXPECT_EQ(large.bytes, (std::vector{std::byte{0x0D}, std::byte{0x0C}, std::byte{0x0B}, std::byte{0x7A}}));
}

}  // namespace
}  // namespace qel::test
