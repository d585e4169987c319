#include "appmenu/applications_menu.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

#include "appmenu/command_line.h"
#include "appmenu/load_budget.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

using Texts = std::vector<std::string>;

std::string Menu(const std::string& name, const std::string& content) {
  return "<Menu><Name>" + name + "</Name>" + content + "</Menu>";
}

std::string Include(const std::string& id) {
  return "<Include><Filename>" + id + "</Filename></Include>";
}

std::string Exclude(const std::string& id) {
  return "<Exclude><Filename>" + id + "</Filename></Exclude>";
}

std::string Times(int count, const std::string& text) {
  std::string result;
  while (count-- > 0) {
    result += text;
  }
  return result;
}

// Menu files and applications in a temporary directory, with two directories of each kind.
class ApplicationsMenu : public testing::Test {
 protected:
  ApplicationsMenu() {
    setenv("XDG_CONFIG_DIRS", (Path("etc") + ":" + Path("opt")).c_str(), 1);
    setenv("XDG_DATA_DIRS", (Path("share") + ":" + Path("local")).c_str(), 1);
    unsetenv("XDG_MENU_PREFIX");
  }

  std::string Path(const std::string& name) const { return dir_.Path() / name; }
  void Write(const std::string& name, const std::string& content) const { dir_.Write(name, content); }
  void WriteKeys(const std::string& name, const std::string& lines) const {
    Write(name, "[Desktop Entry]\n" + lines + "\n");
  }
  void WriteApplication(const std::string& id, const std::string& lines) const {
    WriteKeys("share/applications/" + id, "Name=" + id + "\n" + lines);
  }
  // An "Apps" menu that uses the default directories and holds `content`.
  void WriteMenu(const std::string& content) const {
    Write("etc/menus/applications.menu",
          "<!DOCTYPE Menu><Menu><Name>Apps</Name><DefaultAppDirs/><DefaultDirectoryDirs/>" + content + "</Menu>");
  }

  // The menu as "ID PATH" lines.
  Texts Load() {
    log_.emplace(kLogInfo);
    Texts lines;
    for (const MenuEntry& entry : LoadApplicationsMenu(*registry_, desktop_, {.system_menus = Path("system")})) {
      lines.push_back(std::string(entry.id) + " " + std::string(entry.menu_path));
    }
    return lines;
  }

  // The menu with these rules, loaded into a new registry.
  Texts LoadWith(const std::string& content) {
    registry_.emplace();
    WriteMenu(content);
    return Load();
  }

  void ExpectMenus(const std::vector<std::pair<std::string, Texts>>& cases) {
    for (const auto& [content, expected] : cases) {
      EXPECT_EQ(LoadWith(content), expected) << content;
    }
  }

  // Whether a limit ended the last load early.
  bool IsCutOff() const {
    return std::ranges::any_of(log_->Texts(), [](const std::string& text) {
      return text.starts_with("Warning: The applications menu is too large, something is left out at '");
    });
  }

  test::TempDir dir_;
  std::optional<test::LogCapture> log_;  // of the last load
  std::optional<DesktopEntryRegistry> registry_{std::in_place};
  DesktopKind desktop_ = DesktopKind::kGnome;
};

TEST_F(ApplicationsMenu, RulesOfOneMenu) {
  WriteApplication("aa.desktop", "Categories=Game;Arcade;Game;");
  WriteApplication("bb.desktop", "Categories=Game;Emulator;");
  WriteApplication("sub/c.desktop", "Categories=Office;");
  WriteApplication("hh.desktop", "Categories=Game;\nNoDisplay=true");
  const std::string a = Include("aa.desktop");
  const std::string game = "<Category>Game</Category>";
  const std::string emulator = "<Category>Emulator</Category>";
  // The first pass allocates the entries of a rule without categories. The second pass no longer has them in its pool.
  ExpectMenus({
      {"<Include><All/></Include>", {"aa.desktop /Apps", "bb.desktop /Apps", "sub-c.desktop /Apps"}},
      {Exclude("bb.desktop") + a + Exclude("aa.desktop") + Include("bb.desktop"), {"bb.desktop /Apps"}},
      {"<Include><Filename>hh.desktop</Filename><Filename> aa.desktop</Filename></Include>", {}},
      {"<Include><Filename>sub-c.desktop</Filename><Unknown/></Include>", {"sub-c.desktop /Apps"}},
      {"<Include><And>" + game + "<Not>" + emulator + "</Not></And></Include>", {"aa.desktop /Apps"}},
      {"<Include><And/></Include>", {"aa.desktop /Apps", "bb.desktop /Apps", "sub-c.desktop /Apps"}},
      {"<Include><Not><Or>" + game + emulator + "</Or></Not></Include>", {"sub-c.desktop /Apps"}},
      {Menu(std::string(3000, 'n'), a), {"aa.desktop /Apps/" + std::string(2042, 'n')}},
      // A category rule also finds allocated entries, so each pass adds them.
      {"<Include>" + emulator + "</Include>", {"bb.desktop /Apps", "bb.desktop /Apps"}},
      {"<Include>" + game + "</Include><Exclude>" + emulator + "</Exclude>", {"aa.desktop /Apps", "aa.desktop /Apps"}},
  });
}

TEST_F(ApplicationsMenu, DirectoryFilesAndUnallocatedEntries) {
  WriteApplication("gg.desktop", "Categories=Game;");
  WriteApplication("oo.desktop", "");
  WriteApplication("ss.desktop", "");
  WriteKeys("share/desktop-directories/games.directory", "Name=Spiele");
  WriteKeys("share/desktop-directories/secret.directory", "NoDisplay=true");
  const std::string games = "<Include><Category>Game</Category></Include>";
  const Texts twice = {"gg.desktop /Apps/Games/Early", "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele",
                       "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele"};
  Texts first = twice;
  first.emplace_back("ss.desktop /Apps/Other");
  EXPECT_EQ(LoadWith(Menu("Games", Menu("Early", Include("gg.desktop")) +
                                       "<Directory>none.directory</Directory><Directory>games.directory</Directory>" +
                                       games + Menu("Late", games)) +
                     Menu("Secret", "<Directory>secret.directory</Directory>" + Menu("In", Include("oo.desktop"))) +
                     Menu("Other", "<OnlyUnallocated/><Include><All/></Include>")),
            first);
  EXPECT_TRUE(registry_->GetDesktopEntry("oo.desktop").allocated);
  EXPECT_EQ(Load(), twice) << "the first load has allocated ss.desktop";
}

TEST_F(ApplicationsMenu, MergesAndFolds) {
  for (const char* id : {"bb.desktop", "cc.desktop", "dd.desktop"}) {
    WriteApplication(id, "");
  }
  Write("etc/menus/more/extra.menu",
        "<?xml version='1.0'?><!-- first --><Menu><Name>X</Name>" + Include("bb.desktop") +
            "<MergeFile>deep/deep.menu</MergeFile><MergeFile>extra.menu</MergeFile></Menu>");
  Write("etc/menus/more/deep/deep.menu",
        "<Menu><AppDir>apps &amp; tools</AppDir>" + Include("own.desktop") + "</Menu>");
  WriteKeys("etc/menus/more/deep/apps & tools/own.desktop", "Name=Own");
  Write("etc/menus/applications-merged/1.menu", "<Menu>" + Menu("Games", Include("cc.desktop")) + "</Menu>");
  Write("etc/menus/applications-merged/2.menu", "<NoMenu/>");
  Write("etc/menus/applications-merged/3.menu", "<Menu>");
  EXPECT_EQ(
      LoadWith("<MergeFile>applications.menu</MergeFile><MergeDir>more</MergeDir>" +
               Menu("Games", Exclude("dd.desktop")) + Menu("Games", Include("dd.desktop")) + "<DefaultMergeDirs/>"),
      (Texts{"bb.desktop /Apps", "cc.desktop /Apps/Games", "own.desktop /Apps"}));
  EXPECT_EQ(log_->Count("Error: Failed to parse XML"), 1);
  EXPECT_TRUE(log_->Contains("Menu file left out, because it is missing or malformed: '" +
                             Path("etc/menus/applications-merged/3.menu") + "'"));
  EXPECT_EQ(registry_->GetDesktopEntry("own.desktop").path, Path("etc/menus/more/deep/apps & tools/own.desktop"));
}

// If directories or files appear twice, or define the same thing, the order decides.
TEST_F(ApplicationsMenu, OrderDecidesBetweenDuplicates) {
  WriteApplication("aa.desktop", "Categories=Share;");
  WriteApplication("bb.desktop", "");
  WriteKeys("local/applications/aa.desktop", "Categories=Local;");
  WriteKeys("more/mm.desktop", "");
  Write("etc/menus/applications-merged/m.menu", "<Menu><Exclude><All/></Exclude></Menu>");
  Write("opt/menus/applications-merged/m.menu", "<Menu><Name>Other</Name>" + Include("bb.desktop") + "</Menu>");
  Write("etc/menus/1.menu", "<Menu><Name>One</Name><Menu>" + Include("bb.desktop") + "</Menu></Menu>");
  WriteKeys("share/desktop-directories/d.directory", "Name=Share");
  WriteKeys("local/desktop-directories/d.directory", "Name=Local");
  WriteKeys("dirs/e.directory", "Name=E");
  WriteKeys("share/desktop-directories/hide.directory", "NoDisplay=true");
  WriteKeys("share/desktop-directories/no.directory", "NoDisplay=1\nX-NoDisplay=true");
  const std::string a = Include("aa.desktop");
  const std::string b = Include("bb.desktop");
  const std::string not_b = Exclude("bb.desktop");
  const std::string more = "<AppDir>" + Path("more") + "</AppDir>";
  const std::string dirs = "<DirectoryDir>" + Path("dirs") + "</DirectoryDir>";
  const std::string e = "<Directory>e.directory</Directory>";
  const std::string hide = "<Directory>hide.directory</Directory>";
  const std::string no = "<Directory>no.directory</Directory>";
  ExpectMenus({
      // The last data directory takes precedence.
      {"<Include><And><All/><Category>Local</Category></And></Include>", {"aa.desktop /Apps"}},
      {Menu("M", "<Directory>d.directory</Directory>" + a), {"aa.desktop /Apps/Local"}},
      // The last configuration directory is merged first: the first one excludes again what it includes.
      {a + "<DefaultMergeDirs/>", {}},
      {"<DefaultMergeDirs/>" + a, {"aa.desktop /Apps"}},
      // Of equal elements, only the last one counts.
      {more + Include("mm.desktop") + more, {}},
      {"<MergeFile>1.menu</MergeFile><MergeFile>1.menu</MergeFile>", {"bb.desktop /Apps/"}},
      {Menu("M", dirs + "<DirectoryDir>/none</DirectoryDir>" + e + dirs + a), {"aa.desktop /Apps/M"}},
      {Menu("M", dirs + e + Menu("N", a) + e), {"aa.desktop /Apps/M/N"}},
      {"<Menu><MergeFile>1.menu</MergeFile><Name>M</Name></Menu>", {"bb.desktop /Apps/M/"}},
      // A menu's directories are also used for its submenus, but not for other menus.
      {Menu("M", dirs + Menu("N", e + a)) + Menu("O", e + b), {"aa.desktop /Apps/M/E", "bb.desktop /Apps/O"}},
      {Menu("M", no + a), {"aa.desktop /Apps/M"}},
      {Menu("M", hide + no + a) + Menu("O", "<OnlyUnallocated/><Include><All/></Include>"), {"bb.desktop /Apps/O"}},
      // Menus of the same name are merged at every level. The rules of the later menu come first; its submenus
      // therefore count as the earlier ones.
      {Menu("G", not_b) + Menu("G", b), {}},
      {Menu("G", Menu("H", b)) + Menu("G", Menu("H", not_b)), {}},
      {Menu("", Menu("H", not_b) + Menu("H", b)), {}},
  });
}

// Files are opened in advance. If no descriptor is free then, the file must be opened later, not be skipped.
TEST_F(ApplicationsMenu, AllEntriesAreReadWithFewDescriptors) {
  for (int i = 0; i < 100; ++i) {
    WriteApplication("app" + std::to_string(i) + ".desktop", "Categories=C;");
  }
  std::filesystem::create_symlink("nowhere", Path("share/applications/app50-gone.desktop"));
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int free_descriptor = dup(0);
  close(free_descriptor);
  const rlimit low{.rlim_cur = static_cast<rlim_t>(free_descriptor) + 6, .rlim_max = limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const Texts menu = LoadWith("<Include><And><Category>C</Category></And></Include>");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(menu.size(), 100u);
}

TEST_F(ApplicationsMenu, EntriesAreReadByTheRules) {
  WriteApplication("org.gnome.Nautilus.desktop", "Icon=folder\nExec=nautilus %U\nCategories=A;;B");
  WriteApplication("no-display.desktop", "NoDisplay=True");
  WriteApplication("only.desktop", "OnlyShowIn=KDE;GNOME;");
  WriteApplication("only-else.desktop", "OnlyShowIn=;");
  WriteApplication("not.desktop", "NotShowIn=XFCE;GNOME");
  WriteApplication("k.desktop", "");
  WriteApplication("x-terminal.desktop", "NoDisplay=true");
  WriteApplication("-terminal.desktop", "");
  WriteKeys("late/k.desktop", "Name=late");
  EXPECT_EQ(LoadWith("<AppDir>" + Path("late") + "</AppDir><Include><All/></Include>"),
            (Texts{" /Apps", "-terminal.desktop /Apps", "k.desktop /Apps", "nautilus.desktop /Apps",
                   "no-display.desktop /Apps", "only.desktop /Apps"}));
  const DesktopEntry& nautilus = registry_->GetDesktopEntry("nautilus.desktop");
  EXPECT_EQ((std::vector{nautilus.name, nautilus.icon, nautilus.exec, nautilus.categories}),
            (std::vector<std::string_view>{"org.gnome.Nautilus.desktop", "folder", "nautilus %U", "A;;B"}));
  EXPECT_EQ(registry_->GetDesktopEntry("k.desktop").name, "late");
  EXPECT_EQ(registry_->FindDesktopEntryByName("terminal").first->first, "x-terminal.desktop");
  EXPECT_EQ(registry_->FindDesktopEntryByName("k").first->first, "k.desktop");
  EXPECT_FALSE(registry_->FindDesktopEntryByName("erminal").second);
}

TEST_F(ApplicationsMenu, LocatesTheMenuFile) {
  const auto expect_found = [&](const std::string& file) {
    Load();
    EXPECT_TRUE(log_->Contains("Found app menu definition file: '" + Path(file) + "'"));
  };
  Write("system/kde4-applications.menu", "<Menu/>");
  Write("system/unity-lens-applications.menu", "<Menu/>");
  Load();
  EXPECT_TRUE(log_->Contains("Error: Failed to find applications menu defition."));
  desktop_ = DesktopKind::kKde;
  expect_found("system/kde4-applications.menu");
  desktop_ = DesktopKind::kUnity;
  expect_found("system/unity-lens-applications.menu");
  WriteMenu("");
  expect_found("etc/menus/applications.menu");
  setenv("XDG_MENU_PREFIX", "gnome-", 1);
  Write("opt/menus/gnome-applications.menu", "<Menu");
  expect_found("opt/menus/gnome-applications.menu");
  EXPECT_TRUE(log_->Contains("Error: Failed to parse XML of applications.menu"));
}

// Hostile files cost limited time, and the good entries beside them are still shown.
TEST_F(ApplicationsMenu, SurvivesHostileFiles) {
  // For one load, in seconds of processor time. Sanitizers make it slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr double kLimit = 20;
#else
  constexpr double kLimit = 2;
#endif
  WriteApplication("aa.desktop", "");
  const std::string a = Include("aa.desktop");
  // Strange names, and files that are no regular files or are huge.
  WriteKeys("odd/quote\"\n$(id).desktop", "");
  WriteKeys("odd/huge.desktop", std::string(4 << 20, 'x'));
  ASSERT_EQ(mkfifo(Path("odd/fifo.desktop").c_str(), 0600), 0);
  std::filesystem::create_directory(Path("odd/folder.desktop"));
  std::filesystem::resize_file(dir_.Write("etc/menus/holes.menu", "<Menu>"), std::uintmax_t{8} << 30);
  // Files that merge each other.
  Write("etc/menus/1.menu", "<Menu><MergeFile>2.menu</MergeFile>" + a + "</Menu>");
  Write("etc/menus/2.menu", "<Menu><MergeFile>1.menu</MergeFile></Menu>");
  Write("etc/menus/self.menu", "<Menu><MergeFile>./self.menu</MergeFile><MergeFile>././self.menu</MergeFile></Menu>");
  for (int i = 0; i < 9; ++i) {
    Write("etc/menus/net/" + std::to_string(i) + ".menu", "<Menu><MergeDir>.</MergeDir></Menu>");
  }
  Write("etc/menus/usr.menu", "<Menu><AppDir>/usr</AppDir><AppDir>/usr/</AppDir><MergeDir>/usr</MergeDir></Menu>");
  // Many entries, long names and many directories.
  for (int i = 0; i < 500; ++i) {
    WriteKeys("many/x" + std::to_string(i) + ".desktop", "Categories=C;");
  }
  const std::string many = "<AppDir>" + Path("many") + "</AppDir>";
  WriteKeys("share/desktop-directories/d.directory", "Name=" + std::string(4000, 'n'));
  std::string directories;
  for (int i = 0; i < 3000; ++i) {
    directories.insert(0, "<DirectoryDir>d" + std::to_string(i) + "</DirectoryDir>");
    directories += "<Directory>d" + std::to_string(i) + "</Directory>";
  }
  // Entities that expand to huge texts, and a FIFO as document type and as entity, which the loader must not open.
  ASSERT_EQ(mkfifo(Path("dtd").c_str(), 0600), 0);
  const auto with_entities = [&](const std::string& declarations, const std::string& content) {
    return "<!DOCTYPE Menu SYSTEM '" + Path("dtd") + "' [" + declarations +
           "]><Menu><Name>Apps</Name><DefaultAppDirs/>" + content + "</Menu>";
  };
  std::string entities = "<!ENTITY e0 'aa.desktop'>";
  for (int i = 1; i < 30; ++i) {
    entities += "<!ENTITY e" + std::to_string(i) + " '" + Times(10, "&e" + std::to_string(i - 1) + ";") + "'>";
  }
  const std::string elements = "<!ENTITY e '" + Times(1000, "<a/>") + "'>";
  Write("etc/menus/cdata.menu", "<Menu><Include><Filename><![CDATA[aa.desktop]]></Filename></Include></Menu>");

  const struct {
    const char* what;
    std::string menu;
    std::ptrdiff_t shown;  // how often the good entry is in the top menu; -1: any number
    bool is_cut_off;
    std::size_t least = 0;  // limits for the number of all entries in the menu
    std::size_t most = SIZE_MAX;
  } kCases[] = {
      {"odd names", "<AppDir>" + Path("odd") + "</AppDir><Include><All/></Include>", 1, false, 5, 5},
      {"a huge file", "<MergeFile>holes.menu</MergeFile>" + a, 1, true},
      {"deep", Times(240, "<Menu><Name>m</Name>") + Times(240, "</Menu>") + a, 1, true},
      {"folds at every level", Times(190, "<Menu><Name>n</Name>" + Times(100, Menu("n", a))) + Times(190, "</Menu>"), 0,
       false, 190, 190},
      {"all in each of many", many + Times(20'000, "<Menu><Include><All/></Include></Menu>"), 0, true, 500},
      {"a category in each of many", many + Times(20'000, "<Menu><Include><Category>C</Category></Include></Menu>") + a,
       1, true, 500},
      {"a net", "<MergeFile>self.menu</MergeFile><MergeDir>net</MergeDir><MergeFile>1.menu</MergeFile>", 1, true},
      {"large directories", "<MergeFile>usr.menu</MergeFile>" + a, 1, true},
      {"many directories", directories + a, 1, true},
      {"long paths", Times(50'000, "<Menu><Directory>d.directory</Directory>" + a + "</Menu>"), -1, true, 1, 49'999},
      {"many names of one file", with_entities(entities, "<Include><Filename>&e0;</Filename></Include>"), 1, false},
      {"names without end",
       with_entities(entities, "<Name>&e29;</Name><AppDir>&e29;</AppDir><Include><Filename>&e29;</Filename></Include>"),
       0, false},
      {"elements of an entity", with_entities(elements, Times(10'000, "<Include><Filename>&e;</Filename></Include>")),
       0, false},
      {"elements beside text",
       with_entities(elements, Times(2000, "<AppDir>&e;</AppDir>") + "<MergeFile>cdata.menu</MergeFile>"), 1, false},
      {"an entity that is a file",
       with_entities("<!ENTITY x SYSTEM '" + Path("dtd") + "'>", "<AppDir>&x;</AppDir>" + a), 1, false},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    registry_.emplace();
    WriteMenu(test.menu);
    if (test.menu.starts_with("<!DOCTYPE")) {
      Write("etc/menus/applications.menu", test.menu);
    }
    const std::clock_t start = std::clock();
    const Texts menu = Load();
    EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, kLimit);
    if (test.shown >= 0) {
      EXPECT_EQ(std::ranges::count(menu, "aa.desktop /Apps"), test.shown);
    }
    EXPECT_GE(menu.size(), test.least);
    EXPECT_LE(menu.size(), test.most);
    EXPECT_EQ(IsCutOff(), test.is_cut_off);
  }
}

TEST_F(ApplicationsMenu, LoadingStopsOnRequest) {
  WriteApplication("aa.desktop", "");
  const Texts whole = LoadWith(Times(2000, Menu("", Include("aa.desktop"))));
  registry_.emplace();
  log_.emplace(kLogInfo);
  int asked = 0;
  const auto may_go_on = [&asked] { return ++asked < 5; };
  const MenuEntries menu = LoadApplicationsMenu(*registry_, desktop_, {.may_go_on = may_go_on});
  EXPECT_EQ(asked, 5);
  EXPECT_LT(menu.size(), whole.size());
  EXPECT_FALSE(IsCutOff());
}

// How often a load asks depends on estimated times: about every 2 menu files, or every 100 lookups of a file name.
TEST_F(ApplicationsMenu, LoadingAsksInTheRightIntervalsWhetherToGoOn) {
  std::string files;
  std::string menus;
  for (int i = 0; i < 100; ++i) {
    const std::string name = std::to_string(i);
    Write("etc/menus/" + name, Menu("Apps", ""));
    files += "<MergeFile>" + name + "</MergeFile>";
    menus += "<DirectoryDir>" + name + "</DirectoryDir>" + Menu(name, "<Directory>none</Directory>");
  }
  for (const auto& [content, least, most] : {std::tuple(files, 25, 75), {menus, 80, 200}}) {
    WriteMenu(content);
    int asked = 0;
    LoadApplicationsMenu(*registry_, desktop_, {.may_go_on = [&asked] { return ++asked > 0; }});
    EXPECT_TRUE(asked >= least && asked <= most) << asked << content.substr(0, 60);
  }
}

// A quoted part is one word, even directly after other text. The tests of launching cover the rest.
TEST(CommandLine, Split) {
  const std::pair<const char*, Texts> cases[] = {
      {"a \"b\\\"", {}},
      {"--x=\"1 2\"y", {"1 2", "y"}},
      {"\"a \\\" b\\\\\\\"\" \tc", {"a \\\" b\\\\\\\"", "\tc"}},
      {"  ", {}},
  };
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(SplitCommandLine(line), expected) << line;
  }
}

TEST(LoadBudget, AShareHasLimitedTime) {
  const test::LogCapture log;
  LoadBudget budget;
  int rounds = 0;
  {
    const LoadBudget::Share share(budget, budget.Part(1000));
    while (rounds < 1'000'000 && budget.Spend(100'000, "")) {
      ++rounds;
    }
  }
  EXPECT_LT(rounds, 1'000'000);
  EXPECT_TRUE(budget.Spend(100'000, "")) << "the budget outside of the share is not used up";
}

}  // namespace
}  // namespace qel
