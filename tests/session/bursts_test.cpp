// The host knows all windows and no others, also when many windows open at once, or close before the agent has reported
// them.

#include "session/crowds.h"
#include "session/session_test.h"

namespace qel::test {
namespace {

using testing::IsEmpty;

class BurstsTest : public testing::TestWithParam<const char*> {};

TEST_P(BurstsTest, EachWindowIsReportedOnce) {
  constexpr std::size_t kWindows = 400;
  Session session(GetParam());
  session.StartServingAgent({"-r", "500"});
  const std::vector<Window> windows = OpenInBursts(session, kWindows);
  ASSERT_FALSE(windows.empty()) << "the window manager does not show all windows";
  EXPECT_THAT(session.PictureFaults(), IsEmpty());

  // The windows are closed in the order in which they were opened.
  for (const Window window : windows) {
    session.Client().Close(window);
  }
  session.Settle();
  EXPECT_EQ(session.Count(MessageKind::kAddRun), kWindows + 1);
  EXPECT_THAT(session.PictureFaults(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Under, BurstsTest, testing::ValuesIn(kWindowManagers),
                         [](const auto& window_manager) { return std::string(window_manager.param); });

class GhostsTest : public testing::TestWithParam<int> {};

TEST_P(GhostsTest, ClosedWindowsDisappearFromTheHost) {
  Session session("metacity");
  session.StartServingAgent({"-r", "500"});
  session.Host().faults().SetDelay(std::chrono::milliseconds(GetParam()));
  OpenAndClose(session, {.count = 300});
  session.Settle();
  EXPECT_THAT(session.PictureFaults(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(HostTakesMs, GhostsTest, testing::Values(0, 50), testing::PrintToStringParamName());

// Windows open, close and change while the first enumeration reports the existing ones.
TEST(FirstEnumerationTest, MissesNothingThatHappensMeanwhile) {
  Session session("metacity");
  std::vector<Window> windows;
  for (int i = 0; i < 10; ++i) {
    windows.push_back(session.Open({.title = "there"}));
  }
  session.Host().faults().SetDelay(100ms, MessageKind::kAddRun);
  session.StartAgent({"-r", "500"});
  ASSERT_TRUE(session.WaitForCount(MessageKind::kAddRun, 2));
  session.Client().SetTitle(windows[0], "renamed early");
  session.Client().Close(windows[1]);
  session.Client().Close(windows[9]);
  session.Open({.title = "came meanwhile"});
  EXPECT_TRUE(session.Sees("came meanwhile"));
  EXPECT_TRUE(session.Sees("renamed early"));
  session.Host().faults().SetDelay(0ms, MessageKind::kAddRun);

  session.Client().SetTitle(windows[5], "renamed");
  session.Client().SetIcon(windows[5], {2, 1, 7, 7});
  EXPECT_TRUE(session.WaitFor([](const host::ModelState& state) {
    const host::Window* window = state.FindTitle("renamed");
    return window != nullptr && window->icon.width == 2;
  }));
  EXPECT_THAT(session.PictureFaults(), IsEmpty());
}

}  // namespace
}  // namespace qel::test
