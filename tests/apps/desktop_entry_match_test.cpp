// Desktop entries of windows by WM_CLASS and by leader.
#include <gmock/gmock.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/desktop_entry_match.h"
#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel {
namespace {

using namespace std::string_literals;
using test::LogCapture;
using testing::ElementsAre;

TEST(DesktopEntryMatchTest, WmClassIsTwoTerminatedTexts) {
  const struct {
    std::string data, instance, class_name;
  } kCases[] = {{"Navigator\0Firefox\0"s, "Navigator", "Firefox"},
                {"a\0b\0c\0"s, "a", "b"},
                {"a\0b"s, "a", ""},  // the terminator counts
                {"a\0\0"s, "a", ""},
                {"a"s, "a", ""},
                {"\0b\0"s, "", "b"},
                {"", "", ""}};
  for (const auto& test : kCases) {
    const WmClass parsed = ParseWmClass(test.data);
    EXPECT_EQ(parsed.instance, test.instance) << testing::PrintToString(test.data);
    EXPECT_EQ(parsed.class_name, test.class_name) << testing::PrintToString(test.data);
  }
}

class WindowMatchTest : public testing::Test {
 protected:
  WindowMatchTest() {
    for (const char* const id : {"firefox.desktop", "Upper.desktop", "gnome-terminal.desktop", "x-.desktop"}) {
      registry_.GetDesktopEntry(id);
    }
  }

  Window Make(const std::string& wm_class) {
    const Window window = MakeUnnamed();
    desktop_.Set(window, "WM_CLASS", "STRING", 8, {wm_class.begin(), wm_class.end()});
    return window;
  }
  Window MakeUnnamed() { return desktop_.Make(); }
  void Lead(Window window, Window leader) {
    desktop_.Set(window, "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(leader)});
  }

  // The id found, or empty.
  std::string Match(Window window) {
    desktop_.Sync();
    const FiledDesktopEntry* const entry = MatchDesktopEntry(agent_.GetSession(), registry_, window);
    EXPECT_TRUE(entry == nullptr || entry == &*registry_.Find(entry->first).first);
    return entry == nullptr ? "" : entry->first;
  }

  static std::string Found(Window window, const std::string& id) { return Line(window) + " id='" + id + "'"; }
  static std::string NotFound(Window window) { return Line(window) + " not found"; }
  static std::string Line(Window window) {
    char text[64];
    std::snprintf(text, sizeof text, "Desktop file: wnd=%lx", window);
    return text;
  }

  test::TestDesktop desktop_;
  test::TestAgent agent_{desktop_};
  DesktopEntryRegistry registry_;
};

TEST_F(WindowMatchTest, InstanceThenClassThenLowerCase) {
  EXPECT_EQ(Match(Make("firefox\0Upper\0"s)), "firefox.desktop");
  EXPECT_EQ(Match(Make("Navigator\0Upper\0"s)), "Upper.desktop");
  EXPECT_EQ(Match(Make("Navigator\0FireFox\0"s)), "firefox.desktop");
  EXPECT_EQ(Match(Make("terminal\0"s)), "gnome-terminal.desktop");
  EXPECT_EQ(Match(Make("unterminated\0Upper"s)), "");
  EXPECT_EQ(Match(Make(std::string(100'000, '/'))), "");
  EXPECT_EQ(Match(Make("\0Upper\0"s)), "x-.desktop");  // an empty name is a name
  const Window wrong_type = MakeUnnamed();
  desktop_.Set(wrong_type, "WM_CLASS", "CARDINAL", 32, {1});
  EXPECT_EQ(Match(wrong_type), "x-.desktop");
  EXPECT_EQ(Match(MakeUnnamed()), "");
  EXPECT_EQ(Match(0x7777777), "");  // no window
}

TEST_F(WindowMatchTest, LeadersAnswerForTheirWindows) {
  const Window leader = Make("firefox\0Firefox\0"s);
  const Window middle = Make("unknown\0Unknown\0"s);
  const Window window = MakeUnnamed();
  Lead(window, middle);
  Lead(middle, leader);
  const LogCapture log;
  EXPECT_EQ(Match(window), "firefox.desktop");
  EXPECT_THAT(log.Texts(), ElementsAre(Found(leader, "firefox.desktop"), Found(middle, "firefox.desktop"),
                                       Found(window, "firefox.desktop")));
}

TEST_F(WindowMatchTest, ChainsWithoutAnswerEnd) {
  const Window own_leader = Make("unknown\0"s);
  Lead(own_leader, own_leader);
  const Window follower = MakeUnnamed();
  Lead(follower, own_leader);
  const Window ping = MakeUnnamed();
  const Window pong = MakeUnnamed();
  Lead(ping, pong);
  Lead(pong, ping);
  const Window alone = MakeUnnamed();
  const auto lines = [&](Window window) {
    const LogCapture log;
    EXPECT_EQ(Match(window), "");
    return log.Texts();
  };
  EXPECT_THAT(lines(own_leader), ElementsAre());
  EXPECT_THAT(lines(follower), ElementsAre(NotFound(follower)));
  EXPECT_THAT(lines(ping), ElementsAre(NotFound(pong), NotFound(ping)));
  EXPECT_THAT(lines(alone), ElementsAre(NotFound(alone)));

  Window endless = Make("firefox\0"s);
  for (int i = 0; i < 20; ++i) {
    const Window next = MakeUnnamed();
    Lead(next, endless);
    endless = next;
  }
  EXPECT_EQ(Match(endless), "");
}

}  // namespace
}  // namespace qel
