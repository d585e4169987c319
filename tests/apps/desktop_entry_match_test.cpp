// Desktop entries of windows by WM_CLASS and by leader.
#include <gmock/gmock.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/desktop_entry_match.h"

#include <optional>
#include <sstream>

#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel {
namespace {

using namespace std::string_literals;
using test::LogCapture;
using testing::ElementsAre;

class WindowMatchTest : public testing::Test {
 protected:
  WindowMatchTest() {
    for (const char* const id : {"firefox.desktop", "Upper.desktop", "gnome-terminal.desktop", "x-.desktop"}) {
      registry_.GetDesktopEntry(id);
    }
  }

  Window Make(std::optional<std::string> wm_class = {}, Window leader = None) {
    const Window window = desktop_.Make();
    if (wm_class) {
      desktop_.Set(window, "WM_CLASS", "STRING", 8, {wm_class->begin(), wm_class->end()});
    }
    if (leader != None) {
      Lead(window, leader);
    }
    return window;
  }
  void Lead(Window window, Window leader) {
    desktop_.Set(window, "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(leader)});
  }

  // The id found, or empty.
  std::string Match(Window window) {
    desktop_.Sync();
    const FiledDesktopEntry* const entry = MatchDesktopEntry(agent_.GetSession(), registry_, window).entry;
    return entry == nullptr ? std::string() : std::string(entry->first);
  }
  // What is logged of the search: of each window its outcome.
  std::vector<std::string> Lines(Window window) {
    const LogCapture log;
    Match(window);
    return log.Texts();
  }
  static std::string Line(Window window, const char* outcome) {
    std::ostringstream line;
    line << "Desktop file: wnd=" << std::hex << window << " " << outcome;
    return line.str();
  }

  test::TestDesktop desktop_;
  test::TestAgent agent_{desktop_};
  DesktopEntryRegistry registry_;
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
  const Window wrong_type = Make();
  desktop_.Set(wrong_type, "WM_CLASS", "CARDINAL", 32, {1});
  EXPECT_EQ(Match(wrong_type), "x-.desktop");
  EXPECT_EQ(Match(Make()), "");
  EXPECT_EQ(Match(0x7777777), "");  // no window
}

TEST_F(WindowMatchTest, LeadersAnswerForTheirWindowsUntilTheChainEnds) {
  const Window leader = Make("firefox\0Firefox\0"s);
  const Window middle = Make("unknown\0Unknown\0"s, leader);
  const Window window = Make({}, middle);
  constexpr const char* kFound = "id='firefox.desktop'";
  EXPECT_THAT(Lines(window), ElementsAre(Line(leader, kFound), Line(middle, kFound), Line(window, kFound)));

  const Window own_leader = Make("unknown\0"s);
  Lead(own_leader, own_leader);
  EXPECT_THAT(Lines(own_leader), ElementsAre());
  const Window follower = Make({}, own_leader);
  EXPECT_THAT(Lines(follower), ElementsAre(Line(follower, "not found")));
  const Window ping = Make();
  const Window pong = Make({}, ping);
  Lead(ping, pong);
  EXPECT_THAT(Lines(ping), ElementsAre(Line(pong, "not found"), Line(ping, "not found")));

  Window endless = leader;
  for (int i = 0; i < 20; ++i) {
    endless = Make({}, endless);
  }
  EXPECT_EQ(Match(endless), "");
}

}  // namespace
}  // namespace qel
