// What the host sees of windows that come, change and go under a real window manager.
#include "session/session_test.h"

namespace qel::test {
namespace {

TEST(WindowsTest, EveryQualifyingWindowIsSeenComeChangeAndGo) {
  Session session;
  const Window earlier = session.Open({.title = "earlier"});
  session.Client().Iconify(earlier);
  ASSERT_TRUE(WaitUntil([&] { return session.Client().WmState(earlier) == 3; }));
  session.StartServingAgent();
  EXPECT_TRUE(session.Sees("earlier"));

  IdleProcess& process = session.NewProcess();
  std::vector<std::uint32_t> icons(2 + 16 * 16, 0x11111111);
  icons.insert(icons.end(), {32, 24});
  icons.resize(icons.size() + std::size_t{32} * 24, 0xFF00AA55);
  icons[0] = icons[1] = 16;
  const Window window = session.Open({.pid = process.Pid(), .title = "first é", .icon = icons});
  ASSERT_TRUE(session.Sees("first é"));
  const auto seen = session.FindTitle("first é");
  EXPECT_EQ(seen->id, session.Id(window));
  EXPECT_NE(seen->id, window) << "openbox frames its windows";
  EXPECT_EQ(seen->path, fs::read_symlink("/proc/" + std::to_string(process.Pid()) + "/exe").string());
  EXPECT_EQ(seen->name, "sleep");
  EXPECT_EQ(seen->icon.width, 32u);
  EXPECT_EQ(seen->icon.height, 24u);
  ASSERT_TRUE(seen->small_icon.has_value());
  EXPECT_EQ(seen->small_icon->bytes->at(0), 0x11);

  // Title and icon changes name the application's own window.
  session.Client().SetTitle(window, "second");
  session.Client().SetIcon(window, {1, 2, 7, 7});
  EXPECT_TRUE(session.WaitFor([&](const host::ModelState& state) {
    const host::Window* now = state.FindWindow(seen->id);
    return now != nullptr && now->title == "second" && now->icon.height == 2;
  }));
  for (const host::Event& event : session.Host().model().Snapshot().events) {
    if (const auto* title = std::get_if<host::WindowTitle>(&event.notification)) {
      EXPECT_EQ(title->window == window, title->title == "second") << title->title;
    } else if (const auto* icon = std::get_if<host::UpdateAppIcon>(&event.notification)) {
      EXPECT_EQ(icon->window == window, icon->icon.height == 2) << icon->icon.height;
    }
  }

  // Those of other types and sizes, and without a process, are not seen.
  session.Open({.title = "utility", .type = "_NET_WM_WINDOW_TYPE_UTILITY"});
  session.Open({.title = "splash", .type = "_NET_WM_WINDOW_TYPE_SPLASH"});
  session.Open({.title = "untyped", .type = ""});
  session.Open({.title = "narrow", .width = 1, .height = 600});
  EXPECT_TRUE(session.Client().WaitUntilManaged(session.Client().Open({.title = "no process"})));
  // A second window of the process joins it; all go with their windows.
  const Window dialog = session.Open({.pid = process.Pid(), .title = "dialog", .type = "_NET_WM_WINDOW_TYPE_DIALOG"});
  EXPECT_TRUE(session.Sees("dialog"));
  for (const Window closed : {dialog, window, earlier}) {
    session.Client().Close(closed);
  }
  EXPECT_TRUE(session.WaitFor([](const host::ModelState& state) { return state.WindowCount() == 0; }));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 3u);
}

// Properties of other types and formats than usual.
TEST(WindowsTest, HostilePropertiesCostOnlyTheirOwnWindow) {
  Session session("");  // window managers do not survive this
  session.StartServingAgent();
  const Window window = session.Open({.title = "typed"});
  ASSERT_TRUE(session.Sees("typed"));
  XClient& client = session.Client();
  for (const char* name : {"_NET_WM_NAME", "_NET_WM_ICON", "_NET_WM_STATE", "_NET_WM_WINDOW_TYPE", "WM_CLASS",
                           "WM_CLIENT_LEADER", "_NET_WM_PID", "WM_STATE"}) {
    client.Set(window, name, "INTEGER", 16, std::vector<long>(1000, -1));
    client.Set(window, name, "STRING", 8, {0xFF, 0xFE, 0, 0x80});
    client.Set(window, name, "UTF8_STRING", 8, {0xC0, 0xAF, 0xF5});
    session.Settle();
  }
}

// The windows of a process that is gone are removed at the next destruction, whichever window that is.
TEST(WindowsTest, WindowsOfDeadProcessesAreSwept) {
  Session session;
  session.StartServingAgent();
  IdleProcess& dead = session.NewProcess();
  session.Open({.pid = dead.Pid(), .title = "dead 1"});
  session.Open({.pid = dead.Pid(), .title = "dead 2"});
  const Window other = session.Open({.title = "other"});
  for (const char* title : {"dead 1", "dead 2", "other"}) {
    EXPECT_TRUE(session.Sees(title));
  }
  dead.Kill(SIGKILL);
  dead.Wait();
  session.Client().Close(other);
  EXPECT_TRUE(session.WaitFor([](const host::ModelState& state) { return state.WindowCount() == 0; }));
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 3u);
}

// A listed window that is not to be reported yet is looked at again when what stood against it changes.

enum class Lacks { kNothing, kMapping, kFrameMapping, kListing };

struct Candidate {
  WindowTraits traits;
  std::function<void(Window window)> change;
  Lacks lacks = Lacks::kNothing;
  bool qualifies = true;  // after the change
};

// In a session without a window manager: the test has every step in its own hand.
class CandidatesTest : public testing::TestWithParam<bool> {
 protected:
  // As it is before it qualifies. Frames are windows without any property of importance.
  Window Prepare(const Candidate& candidate, bool framed) {
    XClient& client = session_.Client();
    WindowTraits traits = candidate.traits;
    if (framed) {
      traits.parent = client.Create({.type = "", .width = 300, .height = 200});
    }
    const Window window = client.Create(traits);
    if (candidate.lacks != Lacks::kMapping) {
      client.Map(window);
    }
    if (framed && candidate.lacks != Lacks::kFrameMapping) {
      client.Map(traits.parent);
    }
    if (candidate.lacks != Lacks::kListing) {
      session_.List(window);
    }
    return window;
  }

  Session session_{""};
};

TEST_P(CandidatesTest, AreReportedOnceTheyQualifyAndNotBefore) {
  XClient& client = session_.Client();
  const std::int32_t pid = session_.NewProcess().Pid();
  const auto set_pid = [&](long value) {
    return [&client, value](Window window) { client.Set(window, "_NET_WM_PID", "CARDINAL", 32, {value}); };
  };
  const auto set = [&](const char* name, const char* value) {
    return [&client, name, value](Window window) {
      client.Set(window, name, "ATOM", 32, {static_cast<long>(client.Intern(value))});
    };
  };
  const auto set_type = set("_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_NORMAL");
  const auto grow = [&](Window window) { client.Resize(window, 200, 100); };
  const auto map = [&](Window window) { client.Map(window); };
  const Candidate candidates[] = {
      {{.pid = pid, .type = ""}, set_type},
      {{.pid = pid, .type = "_NET_WM_WINDOW_TYPE_SPLASH"}, set_type},
      {{}, set_pid(pid)},
      {{.pid = pid, .width = 1, .height = 1}, grow},
      {{.pid = pid}, map, Lacks::kMapping},
      {{.pid = pid}, [&](Window window) { client.Map(client.TopLevel(window)); }, Lacks::kFrameMapping},
      {{.pid = pid}, set("_NET_WM_STATE", "_NET_WM_STATE_HIDDEN"), Lacks::kMapping},
      {{.pid = pid}, [&](Window window) { session_.List(window); }, Lacks::kListing},
      // Changes that are not enough, and those that take the window away.
      {{.pid = pid, .type = ""}, set("_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_UTILITY"), Lacks::kNothing, false},
      {{.type = ""}, set_type, Lacks::kNothing, false},
      {{.pid = pid, .width = 1, .height = 1},
       [&](Window window) { client.Resize(window, 1, 100); },
       Lacks::kNothing,
       false},
      {{}, set_pid(0), Lacks::kNothing, false},
      {{.pid = pid}, [&](Window window) { client.Close(window); }, Lacks::kMapping, false},
  };

  const bool there_before = GetParam();
  if (!there_before) {
    session_.StartServingAgent();
  }
  std::vector<std::pair<Window, const Candidate*>> windows;
  for (const Candidate& candidate : candidates) {
    windows.emplace_back(Prepare(candidate, true), &candidate);
    if (candidate.lacks != Lacks::kFrameMapping) {
      windows.emplace_back(Prepare(candidate, false), &candidate);
    }
  }
  if (there_before) {
    session_.StartServingAgent();
  }
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 1u) << "too early";

  std::uint64_t qualified = 0;
  for (const auto& [window, candidate] : windows) {
    const std::uint32_t id = session_.Id(window);
    candidate->change(window);
    if (candidate->qualifies) {
      EXPECT_TRUE(session_.WaitFor([&](const host::ModelState& state) { return state.FindWindow(id) != nullptr; }))
          << "candidate " << candidate - candidates;
      ++qualified;
      // A change that comes later does not make it new.
      set_pid(pid)(window);
      grow(window);
      map(window);
    }
  }
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), qualified + 2);
  EXPECT_EQ(session_.Count(MessageKind::kRmvRun), 0u);
}

INSTANTIATE_TEST_SUITE_P(ThereBefore, CandidatesTest, testing::Bool(), testing::PrintToStringParamName());

// Sessions with nothing but a window manager: whether the agent serves depends on the atoms that it makes.

std::vector<std::string> MissingAtoms() {
  const std::string prefix = "/ Error: Can't initialize atom ";
  std::vector<std::string> names;
  for (const std::string& line : LogLines()) {
    if (const std::size_t start = line.find(prefix); start != std::string::npos) {
      names.push_back(line.substr(start + prefix.size()));
    }
  }
  return names;
}

TEST(WindowManagersTest, ServesWhereTheWindowManagerMakesEveryAtom) {
  for (const char* window_manager : {"metacity", "icewm"}) {
    SCOPED_TRACE(window_manager);
    Session session(window_manager, SessionAtoms::kOfWindowManager);
    session.StartServingAgent();
    EXPECT_THAT(MissingAtoms(), testing::IsEmpty());
    session.Settle();
    EXPECT_TRUE(session.ShowsClientList());
  }
}

// The agent tries again every five seconds, and says what is missing only when that has changed.
TEST(WindowManagersTest, ServesOnceTheMissingAtomsAreThere) {
  const std::string all_missing = "Warning: Tools Service: can't initialize all components";
  Session session("openbox", SessionAtoms::kOfWindowManager);
  session.StartAgent();
  ASSERT_TRUE(WaitForLog(all_missing));
  const std::vector<std::string> missing = MissingAtoms();
  ASSERT_GE(missing.size(), 2u);
  for (const std::string& name : missing) {
    EXPECT_FALSE(session.Client().Exists(name.c_str())) << name;
  }
  std::this_thread::sleep_for(6s);  // the time in which nothing may be said
  EXPECT_EQ(MissingAtoms(), missing);
  EXPECT_EQ(LogCount(all_missing), 1);

  session.Client().Intern(missing.front().c_str());
  std::vector<std::string> with_rest = missing;
  with_rest.insert(with_rest.end(), missing.begin() + 1, missing.end());
  EXPECT_TRUE(WaitUntil([&] { return MissingAtoms() == with_rest; }, kSoon));
  for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kAppMenu, MessageKind::kAddRun}) {
    EXPECT_EQ(session.Count(kind), 0u);
  }

  session.CompleteAtoms();
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 1));
  EXPECT_EQ(MissingAtoms(), with_rest);
  session.Settle();
}

}  // namespace
}  // namespace qel::test
