// The applications menu of a desktop, and windows that its desktop entries describe, as the host sees them.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "session/session.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using namespace std::string_view_literals;

constexpr const char* kMenuFile = "etc/menus/applications.menu";

// The files of a desktop in a folder of the test's own.
class Desktop {
 public:
  Desktop() {
    Write("share/icons/hicolor/index.theme", "[Icon Theme]\n");
    std::filesystem::create_directories(Path("share/applications"));
  }

  std::string Path(const std::filesystem::path& file) const { return directory_.Path() / file; }

  std::string Write(const std::filesystem::path& file, std::string_view content) const {
    return directory_.Write(file, content);
  }

  std::string Application(const std::string& id, const std::string& lines) const {
    return Write("share/applications/" + id, "[Desktop Entry]\n" + lines + "\n");
  }

  // What follows the directories in the top menu.
  void Menu(const std::string& content) const {
    Write(kMenuFile, "<Menu><Name>Applications</Name><DefaultAppDirs/><DefaultDirectoryDirs/>" + content + "</Menu>");
  }

  EnvironmentChanges Environment() const {
    return {{"XDG_CONFIG_DIRS", Path("etc")},
            {"XDG_DATA_DIRS", Path("share")},
            {"XDG_MENU_PREFIX", std::nullopt},
            {"HOME", Path("home")},
            {"XDG_CURRENT_DESKTOP", "XFCE"}};
  }

  Agent& Serve(Session& session) const { return session.StartServingAgent({"-r", "100"}, Environment()); }

 private:
  TempDir directory_;
};

std::string Text(const host::Icon& icon) {
  return icon.IsEmpty() ? "" : std::string(icon.bytes->begin(), icon.bytes->end());
}

// "NAME in LOCATION: ICON" for each entry of the menu that the host has.
std::vector<std::string> MenuLines(Session& session) {
  std::vector<std::string> lines;
  session.Host().model().Read([&](const host::ModelState& state) {
    for (const host::MenuEntry& entry : state.menu.value_or(host::AppMenu()).entries) {
      lines.push_back(entry.name + (entry.location ? " in " + *entry.location : "") +
                      (entry.icon ? ": " + Text(*entry.icon) : ""));
    }
  });
  return lines;
}

TEST(MenuTest, TheHostHasTheMenuAndKnowsWindowsByTheirEntries) {
  const Desktop desktop;
  const std::string writer = desktop.Application(
      "writer.desktop", "Name=Writer\nName[de]=Schreiber\nIcon=pen\nCategories=Office;Text;\nOnlyShowIn=XFCE;");
  constexpr long kTime = 1'000'000'000;
  const timespec times[] = {{.tv_sec = kTime, .tv_nsec = 0}, {.tv_sec = kTime, .tv_nsec = 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, writer.c_str(), times, 0), 0);
  desktop.Application("hidden.desktop", "Name=Hidden\nNoDisplay=true\nCategories=Office;");
  desktop.Application("elsewhere.desktop", "Name=Elsewhere\nOnlyShowIn=KDE;\nCategories=Office;");
  desktop.Application("kde/nameless.desktop", "Categories=Office;");
  desktop.Application("cards.desktop", "Name=Cards\xFF\nIcon=" + desktop.Write("card.svg", "a card"));
  desktop.Application("top.desktop", "Name=Top");
  desktop.Application("rest.desktop", "Name=Rest");
  desktop.Write("share/icons/hicolor/48x48/apps/pen.png", "a large pen");
  desktop.Write("share/icons/hicolor/16x16/apps/pen.png", "a small pen");
  desktop.Write("share/desktop-directories/office.directory", "[Desktop Entry]\nName=B\xC3\xBCro\n");
  desktop.Menu(
      "<Menu><Name>Office</Name><Directory>office.directory</Directory>"
      "<Include><Category>Office</Category></Include></Menu>"
      "<Menu><Name>Games</Name><Menu><Name>Card games</Name>"
      "<Include><Filename>cards.desktop</Filename></Include></Menu></Menu>"
      "<Menu><Name>Other</Name><OnlyUnallocated/><Include><All/></Include></Menu>"
      "<Include><Filename>top.desktop</Filename><Filename>hidden.desktop</Filename></Include>");

  Session session;
  desktop.Serve(session);
  // What is selected by category stands there twice. The one that is left over is allocated by no rule of the first
  // pass.
  EXPECT_THAT(
      MenuLines(session),
      ElementsAre("Cards\xFF in Games/Card games: a card", "kde-nameless in B\xC3\xBCro", "kde-nameless in B\xC3\xBCro",
                  "Rest in Other", "Top", "Writer in B\xC3\xBCro: a small pen", "Writer in B\xC3\xBCro: a small pen"));
  const host::MenuEntry entry = session.Host().model().Snapshot().menu->entries.back();
  EXPECT_EQ(entry.path, writer);
  EXPECT_EQ(entry.time, kTime);

  // The file's icon is taken before the window's own.
  session.Open({.title = "a letter", .icon = {1, 1, 7}, .window_class = std::string("main\0Writer\0"sv)});
  session.Open({.title = "a table", .icon = {1, 1, 7}, .window_class = std::string("main\0Calc\0"sv)});
  ASSERT_TRUE(session.Sees("a letter"));
  ASSERT_TRUE(session.Sees("a table"));
  const auto letter = session.FindTitle("a letter");
  EXPECT_EQ(letter->name, "Writer");
  EXPECT_EQ(letter->path, writer);
  EXPECT_EQ(Text(letter->icon), "a small pen");
  EXPECT_FALSE(letter->icon.argb);
  const auto table = session.FindTitle("a table");
  EXPECT_EQ(table->name, "sleep");
  EXPECT_TRUE(table->icon.argb);
  session.StopAgent();
  session.ExpectNoViolations();
}

TEST(MenuTest, ABrokenDesktopCostsOnlyItsBrokenEntries) {
  const Desktop desktop;
  desktop.Application("good.desktop", "Name=Good\nIcon=good");
  desktop.Application("a \"quoted\" \n.desktop", "Name=Odd\nIcon=folder");
  desktop.Application("long.desktop", std::string(8 << 20, 'x') + "\nName=Long\nIcon=fifo");
  desktop.Application("folder.desktop/inner.desktop", "Name=Inner\nIcon=zero");
  ASSERT_EQ(mkfifo(desktop.Path("share/applications/pipe.desktop").c_str(), 0600), 0);
  std::filesystem::create_directory_symlink(desktop.Path("share"), desktop.Path("share/applications/loop"));
  std::filesystem::create_symlink("circle.desktop", desktop.Path("share/applications/circle.desktop"));
  desktop.Application("wide.desktop", "Name=" + std::string(300, 'n') + "\nIcon=" + desktop.Path("huge"));
  std::filesystem::resize_file(desktop.Write("huge", ""), std::uintmax_t{1} << 30);
  desktop.Write("share/icons/hicolor/mimes/16/good.png", "good");
  const std::string not_a_folder = desktop.Write("share/icons/hicolor/actions", "");
  std::filesystem::permissions(not_a_folder, std::filesystem::perms::owner_all);
  desktop.Write("share/icons/hicolor/apps/16/folder.png/file", "");
  ASSERT_EQ(mkfifo(desktop.Path("share/icons/hicolor/apps/16/fifo.png").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", desktop.Path("share/icons/hicolor/apps/16/zero.png"));

  // Files that no parser takes, a circle through three, and one that names itself by ever longer texts.
  desktop.Menu(
      "<MergeFile>deep.menu</MergeFile><MergeFile>fifo.menu</MergeFile><MergeFile>entities.menu</MergeFile>"
      "<MergeFile>two.menu</MergeFile><MergeFile>./applications.menu</MergeFile><Include><All/></Include>"
      "<Menu><Name>Again</Name><Include><Filename>good.desktop</Filename></Include></Menu>");
  desktop.Write("etc/menus/two.menu", "<Menu><MergeFile>three.menu</MergeFile></Menu>");
  desktop.Write("etc/menus/three.menu", "<Menu><MergeFile>applications.menu</MergeFile></Menu>");
  std::string deep;
  std::string entities = "<!DOCTYPE Menu [<!ENTITY e0 \"Good\">";
  for (int i = 0; i < 10'000; ++i) {
    deep += "<Menu><Name>deep</Name>";
  }
  for (int i = 0; i < 30; ++i) {
    const std::string inner = "&e" + std::to_string(i) + ";";
    entities.append("<!ENTITY e").append(std::to_string(i + 1)).append(" \"");
    entities.append(inner).append(inner).append(inner).append("\">");
  }
  desktop.Write("etc/menus/deep.menu", deep);
  desktop.Write("etc/menus/entities.menu", entities + "]><Menu><Include><Category>&e30;</Category></Include></Menu>");
  ASSERT_EQ(mkfifo(desktop.Path("etc/menus/fifo.menu").c_str(), 0600), 0);

  Session session;
  desktop.Serve(session);
  // Files that cannot be read, or a folder, are entries with nothing but their names.
  EXPECT_THAT(MenuLines(session), ElementsAre("Odd", "circle", "folder", "Inner", "Good in Again: good", "Good: good",
                                              "Long", "pipe", std::string(300, 'n')));
  // Each entry has its own lines in the log, also where two share an icon, and they follow that of the whole menu.
  EXPECT_EQ(LogCount("Error: Failed to open directory '" + not_a_folder + "'"), 5) << "of those not found before it";
  EXPECT_EQ(LogCount("Failed to find icon file"), 3);
  const std::vector<std::string> lines = LogLines();
  const auto position = [&](const std::string& text) {
    return std::ranges::find_if(lines, [&](const std::string& line) { return line.ends_with(text); }) - lines.begin();
  };
  EXPECT_LT(position("Applications menu has 9 entries."), position("Failed to find icon file"));
  session.Open({.title = "served", .window_class = std::string("long\0long\0"sv)});
  ASSERT_TRUE(session.Sees("served"));
  EXPECT_EQ(session.FindTitle("served")->name, "Long");
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
