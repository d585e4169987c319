// The applications menu of a desktop, and windows with desktop entries, as the host sees them.

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>

#include "session/session_test.h"

namespace qel::test {
namespace {

using namespace std::string_view_literals;

std::string Text(const host::Icon& icon) {
  return icon.IsEmpty() ? "" : std::string(icon.bytes->begin(), icon.bytes->end());
}

// The desktop's files are in a temporary directory. Unreadable files must not affect the others.
TEST(MenuTest, TheHostGetsTheMenuAndTheEntriesOfWindows) {
  const TempDir files;
  const auto path = [&](const std::string& file) { return (files.Path() / file).string(); };
  const auto application = [&](const std::string& id, const std::string& lines) {
    return files.Write("share/applications/" + id, "[Desktop Entry]\n" + lines + "\n").string();
  };
  const std::string writer = application(
      "writer.desktop", "Name=Writer\nName[de]=Schreiber\nIcon=pen\nCategories=Office;Text;\nOnlyShowIn=XFCE;");
  constexpr long kTime = 1'000'000'000;
  const timespec times[] = {{.tv_sec = kTime, .tv_nsec = 0}, {.tv_sec = kTime, .tv_nsec = 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, writer.c_str(), times, 0), 0);
  application("hidden.desktop", "Name=Hidden\nNoDisplay=true\nCategories=Office;");
  application("kde/nameless.desktop", "Categories=Office;");
  application("cards.desktop", "Name=Cards\xFF\nIcon=" + files.Write("card.svg", "a card").string());
  application("top.desktop", "Name=Top\nIcon=none");
  application("rest.desktop", "Name=Rest\nIcon=none");
  files.Write("share/icons/hicolor/index.theme", "[Icon Theme]\n");
  files.Write("share/icons/hicolor/48x48/apps/pen.png", "a large pen");
  files.Write("share/icons/hicolor/16x16/apps/pen.png", "a small pen");
  files.Write("share/desktop-directories/office.directory", "[Desktop Entry]\nName=B\xC3\xBCro\n");
  files.Write("etc/menus/applications.menu",
              "<Menu><Name>Applications</Name><DefaultAppDirs/><DefaultDirectoryDirs/><MergeFile>fifo.menu</MergeFile>"
              "<Menu><Name>Office</Name><Directory>office.directory</Directory>"
              "<Include><Category>Office</Category></Include></Menu>"
              "<Menu><Name>Games</Name><Menu><Name>Card games</Name>"
              "<Include><Filename>cards.desktop</Filename></Include></Menu></Menu>"
              "<Menu><Name>Other</Name><OnlyUnallocated/><Include><All/></Include></Menu>"
              "<Include><Filename>top.desktop</Filename><Filename>hidden.desktop</Filename></Include></Menu>");
  for (const char* file : {"share/applications/pipe.desktop", "etc/menus/fifo.menu"}) {
    ASSERT_EQ(mkfifo(path(file).c_str(), 0600), 0);
  }
  fs::create_directory_symlink(path("share"), path("share/applications/loop"));

  Session session;
  session.StartServingAgent({"-r", "100"}, {{"XDG_CONFIG_DIRS", path("etc")},
                                            {"XDG_DATA_DIRS", path("share")},
                                            {"XDG_MENU_PREFIX", std::nullopt},
                                            {"HOME", path("home")},
                                            {"XDG_CURRENT_DESKTOP", "XFCE"}});
  // Entries that are selected by category appear twice. The menu "Other" gets those that no rule of the first pass
  // allocates; one of them is not readable and has only its name.
  const host::AppMenu menu = session.Host().model().Snapshot().menu.value_or(host::AppMenu());
  std::vector<std::string> entries;
  for (const host::MenuEntry& entry : menu.entries) {
    entries.push_back(entry.name + (entry.location ? " in " + *entry.location : "") +
                      (entry.icon ? ": " + Text(*entry.icon) : ""));
  }
  EXPECT_THAT(entries,
              testing::ElementsAre("Cards\xFF in Games/Card games: a card", "kde-nameless in B\xC3\xBCro",
                                   "kde-nameless in B\xC3\xBCro", "pipe in Other", "Rest in Other", "Top",
                                   "Writer in B\xC3\xBCro: a small pen", "Writer in B\xC3\xBCro: a small pen"));
  EXPECT_EQ(menu.entries.back().path, writer);
  EXPECT_EQ(menu.entries.back().time, kTime);
  // Each entry without an icon file has its own log line, after the line with the number of entries.
  const std::vector<std::string> lines = LogLines();
  const auto ends_with = [](const char* text) {
    return [text](const std::string& line) { return line.ends_with(text); };
  };
  const auto whole = std::ranges::find_if(lines, ends_with("Applications menu has 8 entries."));
  EXPECT_EQ(std::count_if(whole, lines.end(), ends_with("Failed to find icon file")), 5);

  // The icon of the desktop entry takes precedence over the window's icon.
  session.Open({.title = "a letter", .icon = {1, 1, 7}, .window_class = std::string("main\0Writer\0"sv)});
  session.Open({.title = "a table", .icon = {1, 1, 7}, .window_class = std::string("main\0Calc\0"sv)});
  ASSERT_TRUE(session.Sees("a letter") && session.Sees("a table"));
  const auto letter = session.FindTitle("a letter");
  EXPECT_EQ(letter->name, "Writer");
  EXPECT_EQ(letter->path, writer);
  EXPECT_EQ(Text(letter->icon), "a small pen");
  EXPECT_FALSE(letter->icon.argb);
  const auto table = session.FindTitle("a table");
  EXPECT_EQ(table->name, "sleep");
  EXPECT_TRUE(table->icon.argb);
}

}  // namespace
}  // namespace qel::test
