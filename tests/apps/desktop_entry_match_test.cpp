// Desktop entries of windows by WM_CLASS and by leader.
#include <gmock/gmock.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/desktop_entry_match.h"

#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

class WindowMatchTest : public testing::Test {
 protected:
  WindowMatchTest() {
    for (const char* const id : {"firefox.desktop", "Upper.desktop", "gnome-terminal.desktop", "x-.desktop"}) {
      agent_.entries.GetDesktopEntry(id);
    }
  }

  Window Make(const std::string& wm_class, Window leader = None) {
    const Window window = desktop_.Make();
    desktop_.SetText(window, "WM_CLASS", "STRING", wm_class);
    return Led(window, leader);
  }
  Window Led(Window window, Window leader) {
    desktop_.SetLeader(window, leader);
    return window;
  }

  // The id found, or empty.
  std::string Match(Window window) {
    desktop_.Sync();
    const FiledDesktopEntry* const entry = MatchDesktopEntry(agent_.GetSession(), agent_.entries, window).entry;
    return entry == nullptr ? std::string() : std::string(entry->first);
  }
  // What is logged of the search: of each window its outcome.
  std::vector<std::string> Lines(Window window) {
    const LogCapture log;
    Match(window);
    return log.Texts();
  }
  static std::string Line(Window window, const char* outcome) {
    return host::Format("Desktop file: wnd=%lx %s", window, outcome);
  }

  TestDesktop desktop_;
  TestAgent agent_{desktop_};
};

TEST_F(WindowMatchTest, InstanceThenClassThenLowerCase) {
  const struct {
    std::string wm_class, id;
  } rows[] = {
      {"firefox\0Upper\0"s, "firefox.desktop"},
      {"Navigator\0Upper\0"s, "Upper.desktop"},
      {"Navigator\0FireFox\0more\0"s, "firefox.desktop"},
      {"terminal"s, "gnome-terminal.desktop"},
      {"unterminated\0Upper"s, ""},
      {"unknown\0\0"s, ""},
      {std::string(100'000, '/'), ""},
      {"\0Upper\0"s, "x-.desktop"},  // an empty name is a name
      {"", "x-.desktop"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Match(Make(row.wm_class)), row.id) << testing::PrintToString(row.wm_class.substr(0, 30));
  }
  const Window window = desktop_.Make();
  EXPECT_EQ(Match(window), "");
  desktop_.Set(window, "WM_CLASS", "CARDINAL", 32, {1});
  EXPECT_EQ(Match(window), "x-.desktop");
  EXPECT_EQ(Match(0x7777777), "");  // no window
}

TEST_F(WindowMatchTest, LeadersAnswerForTheirWindowsUntilTheChainEnds) {
  constexpr const char* kFound = "id='firefox.desktop'";
  constexpr const char* kNotFound = "not found";
  const Window leader = Make("firefox\0Firefox\0"s);
  const Window middle = Make("unknown\0Unknown\0"s, leader);
  const Window window = Led(desktop_.Make(), middle);
  EXPECT_THAT(Lines(window), ElementsAre(Line(leader, kFound), Line(middle, kFound), Line(window, kFound)));

  const Window own_leader = Make("unknown\0"s);
  EXPECT_THAT(Lines(Led(own_leader, own_leader)), ElementsAre());
  const Window follower = Led(desktop_.Make(), own_leader);
  EXPECT_THAT(Lines(follower), ElementsAre(Line(follower, kNotFound)));
  const Window ping = desktop_.Make();
  const Window pong = Led(desktop_.Make(), ping);
  EXPECT_THAT(Lines(Led(ping, pong)), ElementsAre(Line(pong, kNotFound), Line(ping, kNotFound)));

  Window endless = leader;
  for (int i = 0; i < 20; ++i) {
    endless = Led(desktop_.Make(), endless);
  }
  EXPECT_EQ(Match(endless), "");
}

}  // namespace
}  // namespace qel::test
