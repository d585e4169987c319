// Windows open, change and close under a real window manager. The tests check what the host sees.
#include "session/session_test.h"

namespace qel::test {
namespace {

TEST(WindowsTest, TheHostSeesWindowsOpenChangeAndClose) {
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

  // Changes of title and icon name the client window, not the frame.
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

  // Windows of other types and sizes and without a process are not reported.
  session.Open({.title = "utility", .type = "_NET_WM_WINDOW_TYPE_UTILITY"});
  session.Open({.title = "splash", .type = "_NET_WM_WINDOW_TYPE_SPLASH"});
  session.Open({.title = "untyped", .type = ""});
  session.Open({.title = "narrow", .width = 1, .height = 600});
  EXPECT_TRUE(session.Client().WaitUntilManaged(session.Client().Open({.title = "no process"})));
  // A process can have a second window. Closed windows disappear from the host. When the next window closes, so do the
  // windows of a process that has ended.
  const Window dialog = session.Open({.pid = process.Pid(), .title = "dialog", .type = "_NET_WM_WINDOW_TYPE_DIALOG"});
  IdleProcess& dead = session.NewProcess();
  session.Open({.pid = dead.Pid(), .title = "dead 1"});
  session.Open({.pid = dead.Pid(), .title = "dead 2"});
  for (const char* title : {"dialog", "dead 1", "dead 2"}) {
    EXPECT_TRUE(session.Sees(title));
  }
  session.Client().Close(dialog);
  session.Client().Close(window);
  EXPECT_TRUE(session.NoLongerSees("second"));
  dead.Kill(SIGKILL);
  dead.Wait();
  session.Client().Close(earlier);
  EXPECT_TRUE(session.WaitFor([](const host::ModelState& state) { return state.WindowCount() == 0; }));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 5u);
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 5u);
}

// A candidate is a window that the agent must not report yet. When the missing condition is met, the agent must report
// it. Without a window manager the test controls every step.
struct Candidate {
  WindowTraits traits;
  std::function<void(Window window)> change;
  bool mapped = true;
  bool listed = true;
};

class CandidatesTest : public testing::TestWithParam<bool> {};

TEST_P(CandidatesTest, AreReportedOnceTheyQualifyAndNotBefore) {
  const bool there_before = GetParam();
  Session session("");
  XClient& client = session.Client();
  const std::int32_t pid = session.NewProcess().Pid();
  const auto frame = [&](bool mapped) {  // without properties that the agent reads
    const Window window = client.Create({.type = "", .width = 300, .height = 200});
    return mapped ? client.Map(window), window : window;
  };
  const auto set = [&](const char* name, const char* value) {
    return [=, &client](Window window) {
      client.Set(window, name, "ATOM", 32, {static_cast<long>(client.Intern(value))});
    };
  };
  const auto set_type = set("_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_NORMAL");
  const auto set_pid = [&](Window window) { client.Set(window, "_NET_WM_PID", "CARDINAL", 32, {pid}); };
  const auto grow = [&](Window window) { client.Resize(window, 200, 100); };
  const auto map = [&](Window window) { client.Map(window); };
  const Candidate candidates[] = {
      {{.pid = pid, .type = ""}, set_type},
      {{.pid = pid, .type = "_NET_WM_WINDOW_TYPE_SPLASH", .parent = frame(true)}, set_type},
      {{.pid = pid, .type = "", .parent = frame(true)}, [&](Window window) { set_type(client.TopLevel(window)); }},
      {{}, set_pid},
      {{.parent = frame(true)}, set_pid},
      {{.pid = pid, .width = 1, .height = 1}, grow},
      {{.pid = pid, .width = 1, .height = 1, .parent = frame(true)}, grow},
      {{.pid = pid}, map, false},
      {{.pid = pid, .parent = frame(true)}, map, false},
      {{.pid = pid, .parent = frame(false)}, [&](Window window) { client.Map(client.TopLevel(window)); }},
      {{.pid = pid}, set("_NET_WM_STATE", "_NET_WM_STATE_HIDDEN"), false},
      {{.pid = pid}, [&](Window window) { session.List(window); }, true, false},
      {{.pid = pid, .parent = frame(true)}, [&](Window window) { session.List(window); }, true, false},
  };
  if (!there_before) {
    session.StartServingAgent();
  }
  std::vector<Window> windows;
  for (const Candidate& candidate : candidates) {
    windows.push_back(client.Create(candidate.traits));
    if (candidate.mapped) {
      client.Map(windows.back());
    }
    if (candidate.listed) {
      session.List(windows.back());
    }
  }
  if (there_before) {
    session.StartServingAgent();
  }
  session.Settle();
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 1u) << "a candidate was reported too early";
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const std::uint32_t id = session.Id(windows[i]);
    candidates[i].change(windows[i]);
    EXPECT_TRUE(session.WaitFor([&](const host::ModelState& state) { return state.FindWindow(id) != nullptr; })) << i;
    // Later changes must not report it again.
    set_pid(windows[i]);
    grow(windows[i]);
    map(windows[i]);
  }
  session.Settle();
  EXPECT_EQ(session.Count(MessageKind::kAddRun), windows.size() + 2);
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 0u);
}

INSTANTIATE_TEST_SUITE_P(ThereBefore, CandidatesTest, testing::Bool(), testing::PrintToStringParamName());

// The agent creates no atoms. It tries again every five seconds, and logs the missing atoms only when they have
// changed: first those of the session, and when all of these exist, those of the window types.
TEST(AtomsTest, ServesAsSoonAsAllAtomsExist) {
  const std::string error = "Error: Can't initialize atom ";
  Session session("");
  const XServer bare;
  XClient client(bare.Display());
  MakeSessionAtoms(client, 0, 13);
  session.SetAgentDisplay(bare.Display());
  session.StartAgent();
  ASSERT_TRUE(WaitForLog("Warning: Tools Service: can't initialize all components"));
  EXPECT_TRUE(LogContains(error + "WM_STATE"));
  EXPECT_TRUE(LogContains(error + "_NET_WM_WINDOW_TYPE"));
  EXPECT_FALSE(LogContains(error + "_NET_WM_WINDOW_TYPE_NORMAL"));
  const std::vector<std::string> lines = LogLines();
  std::this_thread::sleep_for(6s);  // nothing may be logged during this time
  EXPECT_EQ(LogLines(), lines);
  for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kAppMenu}) {
    EXPECT_EQ(session.Count(kind), 0u);
  }
  MakeSessionAtoms(client, 13, 15);
  EXPECT_TRUE(WaitForLog(error + "_NET_WM_WINDOW_TYPE_NORMAL"));
  EXPECT_TRUE(LogContains(error + "_NET_WM_WINDOW_TYPE_DESKTOP"));
  MakeSessionAtoms(client);
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 1));
}

}  // namespace
}  // namespace qel::test
