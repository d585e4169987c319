// What the host sees of windows that come, change and go under a real window manager.

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using host::MessageKind;

std::vector<std::uint32_t> Icon(std::uint32_t width, std::uint32_t height, std::uint32_t pixel) {
  std::vector<std::uint32_t> items{width, height};
  items.insert(items.end(), static_cast<std::size_t>(width) * height, pixel);
  return items;
}

TEST(WindowsTest, EveryQualifyingWindowIsSeenComeChangeAndGo) {
  Session session;
  const Window earlier = session.Open({.title = "earlier"});
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("earlier"));

  IdleProcess& process = session.NewProcess();
  std::vector<std::uint32_t> icons = Icon(16, 16, 0x11111111);
  const auto large = Icon(32, 24, 0xFF00AA55);
  icons.insert(icons.end(), large.begin(), large.end());
  const Window window = session.Open({.pid = process.Pid(), .title = "first é", .icon = icons});
  ASSERT_TRUE(session.Sees("first é"));
  const auto seen = session.FindTitle("first é");
  EXPECT_EQ(seen->id, session.Client().TopLevel(window));
  EXPECT_NE(seen->id, window) << "openbox frames its windows";
  EXPECT_EQ(seen->path, std::filesystem::read_symlink("/proc/" + std::to_string(process.Pid()) + "/exe").string());
  EXPECT_EQ(seen->name, "sleep");
  EXPECT_EQ(seen->icon.width, 32u);
  EXPECT_EQ(seen->icon.height, 24u);
  ASSERT_TRUE(seen->small_icon.has_value());
  EXPECT_EQ(seen->small_icon->bytes->at(0), 0x11);

  // Title and icon changes name the application's own window.
  session.Client().SetTitle(window, "second");
  session.Client().SetIcon(window, Icon(8, 8, 0xFFFFFFFF));
  EXPECT_TRUE(session.Host().WaitFor(
      [&](const host::ModelState& state) {
        const host::Window* seen_window = state.FindWindow(seen->id);
        return seen_window != nullptr && seen_window->title == "second" && seen_window->icon.width == 8;
      },
      kSoon));
  session.Host().model().Read([&](const host::ModelState& state) {
    for (const host::Event& event : state.events) {
      if (const auto* title = std::get_if<host::WindowTitle>(&event.notification)) {
        EXPECT_EQ(title->window == window, title->title == "second") << title->title;
      } else if (const auto* icon = std::get_if<host::UpdateAppIcon>(&event.notification)) {
        EXPECT_EQ(icon->window == window, icon->icon.width == 8) << icon->icon.width;
      }
    }
  });

  // A second window of the process joins it; both go with their windows.
  const Window dialog = session.Open(
      {.pid = process.Pid(), .title = "dialog", .type = "_NET_WM_WINDOW_TYPE_DIALOG", .width = 90, .height = 60});
  ASSERT_TRUE(session.Sees("dialog"));
  const auto dialog_top = static_cast<std::uint32_t>(session.Client().TopLevel(dialog));
  session.Client().Close(dialog);
  EXPECT_TRUE(session.Host().WaitFor(
      [&](const host::ModelState& state) { return state.FindWindow(dialog_top) == nullptr; }, kSoon));
  session.Client().Close(window);
  session.Client().Close(earlier);
  EXPECT_TRUE(session.Host().WaitFor([](const host::ModelState& state) { return state.WindowCount() == 0; }, kSoon));
  session.StopAgent();
  session.ExpectNoViolations();
}

TEST(WindowsTest, WindowsThatDoNotQualifyAreNotSeen) {
  Session session;
  session.StartServingAgent();
  const auto desktop = static_cast<long>(0xFFFFFFFFUL);
  session.Open({.title = "utility", .type = "_NET_WM_WINDOW_TYPE_UTILITY"});
  session.Open({.title = "splash", .type = "_NET_WM_WINDOW_TYPE_SPLASH"});
  session.Open({.title = "untyped", .type = ""});
  session.Open({.title = "narrow", .width = 1, .height = 600});
  const Window no_pid = session.Client().Open({.title = "no process"});
  session.Client().WaitUntilManaged(no_pid);
  const Window odd = session.Client().Open({.title = "odd process"});
  session.Client().SetProperty(odd, "_NET_WM_PID", "STRING", 8, "\1\2\3\4", 4);
  session.Client().SetProperty(odd, "_NET_WM_DESKTOP", "CARDINAL", 32, &desktop, 1);

  session.Open({.title = "last"});
  ASSERT_TRUE(session.Sees("last"));
  session.Host().model().Read([](const host::ModelState& state) { EXPECT_EQ(state.WindowCount(), 1u); });
  session.StopAgent();
  session.ExpectNoViolations();
}

TEST(WindowsTest, HostilePropertiesCostOnlyTheirOwnWindow) {
  Session session("");  // window managers do not survive this
  session.StartServingAgent();
  // Sizes whose product overflows, blocks past the end, empty blocks, wrong types and formats.
  const std::vector<std::vector<std::uint32_t>> icons = {
      {0x10000, 0x10000, 1},
      {0xFFFFFFFF, 0xFFFFFFFF, 1, 2, 3},
      {0, 0, 0, 0, 0, 0},
      {16, 16, 5},
      {1, 2},
      {2, 1, 7, 7, 0xFFFFFFFF, 1},
      {0x80000000, 2, 3, 4},
  };
  for (std::size_t i = 0; i < icons.size(); ++i) {
    const Window window = session.Open({.title = "icon " + std::to_string(i), .icon = icons[i]});
    EXPECT_TRUE(session.Sees("icon " + std::to_string(i)));
    session.Client().SetIcon(window, icons[(i + 1) % icons.size()]);
  }
  EXPECT_EQ(session.FindTitle("icon 5")->icon.width, 2u);
  EXPECT_TRUE(session.FindTitle("icon 1")->icon.IsEmpty());

  const Window window = session.Open({.title = "typed"});
  ASSERT_TRUE(session.Sees("typed"));
  XClient& client = session.Client();
  const std::vector<short> shorts(1000, -1);
  for (const char* name : {"_NET_WM_NAME", "_NET_WM_ICON", "_NET_WM_STATE", "_NET_WM_WINDOW_TYPE", "WM_CLASS",
                           "WM_CLIENT_LEADER", "_NET_WM_PID", "WM_STATE"}) {
    client.SetProperty(window, name, "INTEGER", 16, shorts.data(), 1000);
    client.SetProperty(window, name, "STRING", 8, "\xFF\xFE\0\x80", 4);
    client.SetProperty(window, name, "UTF8_STRING", 8, "\xC0\xAF\xF5", 3);
  }
  // A title of a megabyte is cut to its field, and invalid UTF-8 ends it.
  client.SetTitle(window, std::string(1 << 20, 'x'));
  session.Open({.title = "still served"});
  EXPECT_TRUE(session.Sees("still served"));
  session.StopAgent();
  session.ExpectNoViolations();
}

TEST(WindowsTest, HiddenWindowsCountAndDeadProcessesAreSwept) {
  Session session;
  const Window iconic = session.Open({.title = "iconic"});
  session.Client().Iconify(iconic);
  const auto is_iconic = [&] { return session.Client().WmState(iconic) == 3; };
  ASSERT_TRUE(WaitUntil(is_iconic));
  session.StartServingAgent();
  ASSERT_TRUE(session.Sees("iconic"));

  // The windows of a process that is gone are removed at the next destruction, whichever window that is.
  IdleProcess& dead = session.NewProcess();
  session.Open({.pid = dead.Pid(), .title = "dead 1"});
  session.Open({.pid = dead.Pid(), .title = "dead 2"});
  const Window other = session.Open({.title = "other"});
  ASSERT_TRUE(session.Sees("dead 2"));
  ASSERT_TRUE(session.Sees("other"));
  dead.End();
  session.Client().Close(other);
  EXPECT_TRUE(session.NoLongerSees("dead 1"));
  EXPECT_TRUE(session.NoLongerSees("dead 2"));
  EXPECT_TRUE(session.NoLongerSees("other"));
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 3u);
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
