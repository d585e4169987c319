#include "appmenu/applications_menu.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "appmenu/load_budget.h"
#include "menu_fixture.h"
#include "support/log_capture.h"

namespace qel {
namespace {

using ApplicationsMenu = MenuTest;

std::string Menu(const std::string& name, const std::string& content) {
  return "<Menu><Name>" + name + "</Name>" + content + "</Menu>";
}

TEST_F(ApplicationsMenu, RulesOfOneMenu) {
  WriteApplication("aa.desktop", "Categories=Game;Arcade;Game;");
  WriteApplication("bb.desktop", "Categories=Game;Emulator;");
  WriteApplication("sub/c.desktop", "Categories=Office;");
  WriteApplication("hh.desktop", "Categories=Game;\nNoDisplay=true");
  const std::string a = "<Filename>aa.desktop</Filename>";
  const std::string game = "<Category>Game</Category>";
  const std::string emulator = "<Category>Emulator</Category>";
  // What a rule that does not look at categories selects is allocated by the first pass, and so not in the pool of the
  // second.
  const std::pair<std::string, Texts> cases[] = {
      {"<Include><All/></Include>", {"aa.desktop /Apps", "bb.desktop /Apps", "sub-c.desktop /Apps"}},
      {"<Include>" + a + "</Include><Exclude>" + a + "</Exclude>", {}},
      {"<Exclude>" + a + "</Exclude><Include>" + a + "</Include>", {"aa.desktop /Apps"}},
      {"<Include><Filename>hh.desktop</Filename><Filename> aa.desktop</Filename></Include>", {}},
      {"<Include><Filename>sub-c.desktop</Filename><Unknown/></Include>", {"sub-c.desktop /Apps"}},
      {"<Include><And>" + game + "<Not>" + emulator + "</Not></And></Include>", {"aa.desktop /Apps"}},
      {"<Include><And>" + game + "<Unknown/></And></Include>", {}},
      {"<Include><And/></Include>", {"aa.desktop /Apps", "bb.desktop /Apps", "sub-c.desktop /Apps"}},
      {"<Include><Not><Or>" + game + emulator + "</Or></Not></Include>", {"sub-c.desktop /Apps"}},
      // A category is looked up beyond the pool, hence once in each pass.
      {"<Include>" + emulator + "</Include>", {"bb.desktop /Apps", "bb.desktop /Apps"}},
      {"<Include>" + game + "</Include><Exclude>" + emulator + "</Exclude>", {"aa.desktop /Apps", "aa.desktop /Apps"}},
  };
  for (const auto& [rules, expected] : cases) {
    EXPECT_EQ(LoadWith(rules), expected) << rules;
  }
}

TEST_F(ApplicationsMenu, MenusWithDirectoryFilesAndTheUnallocated) {
  WriteApplication("gg.desktop", "Categories=Game;");
  WriteApplication("oo.desktop", "Categories=Office;");
  WriteApplication("ss.desktop", "");
  tree_.Write("share/desktop-directories/games.directory", "[Desktop Entry]\nName=Spiele\n");
  tree_.Write("share/desktop-directories/secret.directory", "[Desktop Entry]\nNoDisplay=true\n");
  const Texts menu =
      LoadWith(Menu("Games", Menu("Early", "<Include><Filename>gg.desktop</Filename></Include>") +
                                 "<Directory>none.directory</Directory><Directory>games.directory</Directory>"
                                 "<Include><Category>Game</Category></Include>" +
                                 Menu("Late", "<Include><Category>Game</Category></Include>")) +
               Menu("Secret", "<Directory>secret.directory</Directory>" +
                                  Menu("In", "<Include><Filename>oo.desktop</Filename></Include>")) +
               Menu("Other", "<OnlyUnallocated/><Include><All/></Include>"));
  EXPECT_EQ(menu, (Texts{"gg.desktop /Apps/Games/Early", "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele",
                         "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele", "ss.desktop /Apps/Other"}));
  EXPECT_TRUE(registry_->GetDesktopEntry("oo.desktop").allocated);

  EXPECT_EQ(Load(), (Texts{"gg.desktop /Apps/Games/Early", "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele",
                           "gg.desktop /Apps/Spiele/Late", "gg.desktop /Apps/Spiele"}))
      << "what one load allocated stays allocated in the next";
}

TEST_F(ApplicationsMenu, MergesAndFolds) {
  for (const char* id : {"aa.desktop", "bb.desktop", "cc.desktop", "dd.desktop"}) {
    WriteApplication(id, "");
  }
  tree_.Write(
      "etc/menus/more/extra.menu",
      "<?xml version='1.0'?><!-- first --><Menu><Name>X</Name><Include><Filename>bb.desktop</Filename></Include>"
      "<MergeFile>deep/deep.menu</MergeFile><MergeFile>extra.menu</MergeFile></Menu>");
  tree_.Write("etc/menus/more/deep/deep.menu",
              "<Menu><AppDir>apps &amp; tools</AppDir><Include><Filename>own.desktop</Filename></Include></Menu>");
  tree_.Write("etc/menus/more/deep/apps & tools/own.desktop", "[Desktop Entry]\nName=Own\n");
  tree_.Write("etc/menus/applications-merged/1.menu",
              "<Menu>" + Menu("Games", "<Include><Filename>cc.desktop</Filename></Include>") + "</Menu>");
  tree_.Write("etc/menus/applications-merged/2.menu", "<NoMenu/>");
  tree_.Write("etc/menus/applications-merged/3.menu", "<Menu>");
  const std::string d = "<Filename>dd.desktop</Filename>";
  EXPECT_EQ(LoadWith("<MergeFile>applications.menu</MergeFile><MergeDir>more</MergeDir>" +
                     Menu("Games", "<Exclude>" + d + "</Exclude>") + Menu("Games", "<Include>" + d + "</Include>") +
                     "<DefaultMergeDirs/>"),
            (Texts{"bb.desktop /Apps", "cc.desktop /Apps/Games", "own.desktop /Apps"}));
  EXPECT_TRUE(IsLogged("Error: Failed to parse XML\n"));
  EXPECT_EQ(registry_->GetDesktopEntry("own.desktop").path, tree_.Path("etc/menus/more/deep/apps & tools/own.desktop"));
}

// Files are opened ahead of being read; one that lacks a descriptor then must not be taken for a missing one.
TEST_F(ApplicationsMenu, AllEntriesAreReadWithFewDescriptors) {
  for (int i = 0; i < 100; ++i) {
    WriteApplication("app" + std::to_string(i) + ".desktop", "Categories=C;");
  }
  std::filesystem::create_symlink("nowhere", tree_.Path("share/applications/app50-gone.desktop"));
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
  tree_.Write("late/k.desktop", "[Desktop Entry]\nName=late\n");
  WriteMenu("<AppDir>" + tree_.Path("late") + "</AppDir><Include><All/></Include>");
  EXPECT_EQ(Load(), (Texts{" /Apps", "-terminal.desktop /Apps", "k.desktop /Apps", "nautilus.desktop /Apps",
                           "no-display.desktop /Apps", "only.desktop /Apps"}));
  const DesktopEntry& nautilus = registry_->GetDesktopEntry("nautilus.desktop");
  EXPECT_EQ(nautilus.name, "org.gnome.Nautilus.desktop");
  EXPECT_EQ(nautilus.icon, "folder");
  EXPECT_EQ(nautilus.exec, "nautilus %U");
  EXPECT_EQ(nautilus.categories, "A;;B");
  EXPECT_EQ(registry_->GetDesktopEntry("").name, "k.desktop");
  EXPECT_EQ(registry_->GetDesktopEntry("k.desktop").name, "late");
  EXPECT_EQ(registry_->FindDesktopEntryByName("terminal").first->first, "x-terminal.desktop");
  EXPECT_EQ(registry_->FindDesktopEntryByName("k").first->first, "k.desktop");
  EXPECT_FALSE(registry_->FindDesktopEntryByName("erminal").second);
}

TEST_F(ApplicationsMenu, LocatesTheMenuFile) {
  tree_.Write("system/kde4-applications.menu", "<Menu><Name>K</Name></Menu>");
  EXPECT_TRUE(Load().empty());
  EXPECT_TRUE(IsLogged("Error: Failed to find applications menu defition."));
  desktop_ = DesktopKind::kKde;
  SetLogLevel(kLogInfo);
  Load();
  EXPECT_TRUE(IsLogged("Found app menu definition file: '" + tree_.Path("system/kde4-applications.menu")));
  tree_.Write("system/unity-lens-applications.menu", "<Menu/>");
  desktop_ = DesktopKind::kUnity;
  Load();
  EXPECT_TRUE(IsLogged("Found app menu definition file: '" + tree_.Path("system/unity-lens-applications.menu")));
  WriteMenu("");
  setenv("XDG_MENU_PREFIX", "gnome-", 1);
  tree_.Write("opt/menus/gnome-applications.menu", "<Menu");
  setenv("XDG_CONFIG_DIRS", (tree_.Path("etc") + ":" + tree_.Path("opt")).c_str(), 1);
  EXPECT_TRUE(Load().empty());
  EXPECT_TRUE(IsLogged("opt/menus/gnome-applications.menu'"));
  EXPECT_TRUE(IsLogged("Error: Failed to parse XML of applications.menu"));
  SetLogLevel(-1);
}

TEST_F(ApplicationsMenu, ObserverHearsWhyEntriesAreAbsent) {
  struct Recorder : MenuObserver {
    void OnEntryRead(std::string_view id, HiddenBy by) override { hidden[std::string(id)] = by; }
    void OnEntryExcluded(std::string_view id, std::string_view menu) override { excluded[std::string(id)] = menu; }
    std::map<std::string, HiddenBy> hidden;
    std::map<std::string, std::string> excluded;
  } recorder;
  WriteApplication("aa.desktop", "NotShowIn=GNOME");
  WriteApplication("bb.desktop", "");
  observer_ = &recorder;
  LoadWith(Menu("M", "<Include><All/></Include><Exclude><All/></Exclude>") + Menu("U", "<OnlyUnallocated/>"));
  EXPECT_EQ(recorder.hidden, (std::map<std::string, HiddenBy>{{"aa.desktop", HiddenBy::kNotShowIn},
                                                              {"bb.desktop", HiddenBy::kNothing}}));
  EXPECT_EQ(recorder.excluded, (std::map<std::string, std::string>{{"bb.desktop", "/Apps/M"}}));
}

// Of directories and files that are named twice, or that hold the same thing, the order decides.
TEST_F(ApplicationsMenu, TwoOfEverything) {
  setenv("XDG_CONFIG_DIRS", (tree_.Path("etc") + ":" + tree_.Path("opt")).c_str(), 1);
  setenv("XDG_DATA_DIRS", (tree_.Path("share") + ":" + tree_.Path("local")).c_str(), 1);
  WriteApplication("aa.desktop", "Categories=Share;");
  WriteApplication("bb.desktop", "");
  tree_.Write("local/applications/aa.desktop", "[Desktop Entry]\nCategories=Local;\n");
  tree_.Write("etc/menus/applications-merged/m.menu", "<Menu><Exclude><All/></Exclude></Menu>");
  tree_.Write("opt/menus/applications-merged/m.menu",
              "<Menu><Name>Other</Name><Include><Filename>bb.desktop</Filename></Include></Menu>");
  tree_.Write("etc/menus/1.menu",
              "<Menu><Name>One</Name><Menu><Include><Filename>bb.desktop</Filename></Include></Menu></Menu>");
  const std::string keys = "[Desktop Entry]\n";
  for (const auto& [name, lines] : {std::pair("share/desktop-directories/d.directory", "Name=Share"),
                                    {"local/desktop-directories/d.directory", "Name=Local"},
                                    {"dirs/e.directory", "Name=E"},
                                    {"share/desktop-directories/hide.directory", "NoDisplay=true"},
                                    {"share/desktop-directories/no.directory", "NoDisplay=1\nX-NoDisplay=true"}}) {
    tree_.Write(name, keys + lines + "\n");
  }
  const std::string a = "<Include><Filename>aa.desktop</Filename></Include>";
  const std::string b = "<Include><Filename>bb.desktop</Filename></Include>";
  const std::string not_b = "<Exclude><Filename>bb.desktop</Filename></Exclude>";
  const std::string more = "<AppDir>" + tree_.Path("more") + "</AppDir>";
  const std::string dirs = "<DirectoryDir>" + tree_.Path("dirs") + "</DirectoryDir>";
  const std::string in_more = "<Include><Filename>mm.desktop</Filename></Include>";
  const std::string d = "<Directory>d.directory</Directory>";
  const std::string e = "<Directory>e.directory</Directory>";
  tree_.Write("more/mm.desktop", keys);
  const std::pair<std::string, Texts> cases[] = {
      // The last of the data directories comes first.
      {"<Include><And><All/><Category>Local</Category></And></Include>", {"aa.desktop /Apps"}},
      {Menu("M", d + a), {"aa.desktop /Apps/Local"}},
      // The last of the configuration directories comes first, too: what it includes is excluded again.
      {a + "<DefaultMergeDirs/>", {}},
      {"<DefaultMergeDirs/>" + a, {"aa.desktop /Apps"}},
      // Only the last of some equal elements counts.
      {more + in_more + more, {}},
      {"<MergeFile>1.menu</MergeFile><MergeFile>1.menu</MergeFile>", {"bb.desktop /Apps/"}},
      {Menu("M", dirs + "<DirectoryDir>/none</DirectoryDir>" + e + dirs + a), {"aa.desktop /Apps/M"}},
      {Menu("M", dirs + e + Menu("N", a) + e), {"aa.desktop /Apps/M/N"}},
      {"<Menu><MergeFile>1.menu</MergeFile><Name>M</Name></Menu>", {"bb.desktop /Apps/M/"}},
      // Directories of a menu are those of its submenus, not of its neighbours.
      {Menu("M", dirs + Menu("N", e + a)) + Menu("O", e + b), {"aa.desktop /Apps/M/E", "bb.desktop /Apps/O"}},
      {Menu("M", "<Directory>hide.directory</Directory><Directory>no.directory</Directory>" + a), {}},
      {Menu("M", "<Directory>no.directory</Directory>" + a), {"aa.desktop /Apps/M"}},
      {Menu("M", "<Directory>hide.directory</Directory>" + a) +
           Menu("O", "<OnlyUnallocated/><Include><All/></Include>"),
       {"bb.desktop /Apps/O"}},
      // Menus of one name are one at every level: the rules of the later one come first, and by that the submenus of
      // the earlier one are the later ones.
      {Menu("G", not_b) + Menu("G", b), {}},
      {Menu("G", b) + Menu("G", not_b), {"bb.desktop /Apps/G"}},
      {Menu("G", Menu("H", not_b)) + Menu("G", Menu("H", b)), {"bb.desktop /Apps/G/H"}},
      {Menu("G", Menu("H", b)) + Menu("G", Menu("H", not_b)), {}},
      {Menu("", Menu("H", not_b) + Menu("H", b)), {}},
  };
  for (const auto& [content, expected] : cases) {
    EXPECT_EQ(LoadWith(content), expected) << content;
  }
}

// What files made to stop the loader may cost, and that entries beside them are shown.
class HostileMenu : public MenuTest {
 protected:
  HostileMenu() { WriteApplication("aa.desktop", ""); }

  ~HostileMenu() override {
    // Of one load. A sanitizer takes the time of the parts that are not measured.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr double kLimit = 20;
#else
    constexpr double kLimit = 2;
#endif
    EXPECT_LT(longest_, kLimit) << "seconds";
  }

  Texts Measure(const std::string& menu) {
    registry_.emplace();
    tree_.Write("etc/menus/applications.menu", menu);
    timespec start{};
    timespec end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    Texts lines = Load();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    longest_ = std::max(longest_, static_cast<double>(end.tv_sec - start.tv_sec) +
                                      static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9);
    return lines;
  }

  Texts MeasureWith(const std::string& content) {
    return Measure("<Menu><Name>Apps</Name><DefaultAppDirs/><DefaultDirectoryDirs/>" + content + "</Menu>");
  }

  static std::string Times(int count, const std::string& text) {
    std::string result;
    while (count-- > 0) {
      result += text;
    }
    return result;
  }

  bool IsCutOff() {
    return IsLogged("Warning: The applications menu is too large, something is left out at '");
  }

  const std::string all_ = "<Include><Filename>aa.desktop</Filename></Include>";
  const Texts only_a_{"aa.desktop /Apps"};
  double longest_ = 0;
};

TEST_F(HostileMenu, HugeFilesAndNamesThatAreNoFiles) {
  WriteApplication("quote\"\n$(id).desktop", "");
  ASSERT_EQ(mkfifo(tree_.Path("share/applications/fifo.desktop").c_str(), 0600), 0);
  std::filesystem::create_directory(tree_.Path("share/applications/folder.desktop"));
  WriteApplication("huge.desktop", std::string(4 << 20, 'x'));
  EXPECT_EQ(MeasureWith("<Include><All/></Include>").size(), 5U);
  EXPECT_FALSE(IsCutOff());
  std::filesystem::resize_file(tree_.Write("etc/menus/holes.menu", "<Menu>"), std::uintmax_t{8} << 30);
  EXPECT_EQ(MeasureWith("<MergeFile>holes.menu</MergeFile>" + all_), only_a_);
  EXPECT_TRUE(IsCutOff());
}

TEST_F(HostileMenu, DeepMenus) {
  EXPECT_EQ(MeasureWith(Times(1000, "<Menu>") + Times(1000, "</Menu>") + all_), Texts{}) << "too deep for the parser";
  EXPECT_EQ(MeasureWith(Times(240, "<Menu><Name>m</Name>") + Times(240, "</Menu>") + all_), only_a_);
  EXPECT_TRUE(IsCutOff());
}

TEST_F(HostileMenu, FoldsAtEveryLevel) {
  const std::string siblings = Times(100, "<Menu><Name>n</Name>" + all_ + "</Menu>");
  const Texts menu = MeasureWith(Times(190, "<Menu><Name>n</Name>" + siblings) + Times(190, "</Menu>"));
  EXPECT_EQ(menu.size(), 190U);
}

TEST_F(HostileMenu, ManyMenusOfManyEntries) {
  for (int i = 0; i < 500; ++i) {
    WriteApplication("x" + std::to_string(i) + ".desktop", "Categories=C;");
  }
  for (const char* rule : {"<All/>", "<Category>C</Category>"}) {
    const Texts menu = MeasureWith(Times(20'000, "<Menu><Include>" + std::string(rule) + "</Include></Menu>") + all_);
    EXPECT_TRUE(IsCutOff());
    EXPECT_TRUE(std::ranges::count(menu, "aa.desktop /Apps") == 1 || rule[1] == 'A');
    EXPECT_GE(menu.size(), 500U);
  }
}

TEST_F(HostileMenu, FilesThatMergeOneAnother) {
  tree_.Write("etc/menus/1.menu", "<Menu><MergeFile>2.menu</MergeFile>" + all_ + "</Menu>");
  tree_.Write("etc/menus/2.menu", "<Menu><MergeFile>1.menu</MergeFile></Menu>");
  tree_.Write("etc/menus/bad.menu",
              "<Menu><MergeFile>./bad.menu</MergeFile><MergeFile>././bad.menu</MergeFile></Menu>");
  for (int i = 0; i < 9; ++i) {
    tree_.Write("etc/menus/net/" + std::to_string(i) + ".menu", "<Menu><MergeDir>.</MergeDir></Menu>");
  }
  EXPECT_EQ(MeasureWith("<MergeFile>1.menu</MergeFile>"), only_a_);
  EXPECT_FALSE(IsCutOff());
  EXPECT_EQ(MeasureWith("<MergeFile>bad.menu</MergeFile><MergeDir>net</MergeDir><MergeFile>1.menu</MergeFile>"),
            only_a_);
  EXPECT_TRUE(IsCutOff());
}

TEST_F(HostileMenu, LargeDirectories) {
  EXPECT_EQ(MeasureWith(Times(10'000, "<AppDir>/none</AppDir><MergeFile>/none</MergeFile>") + all_), only_a_);
  tree_.Write("etc/menus/bad.menu",
              "<Menu><AppDir>/usr</AppDir><AppDir>/usr/</AppDir><MergeDir>/usr</MergeDir></Menu>");
  EXPECT_EQ(std::ranges::count(MeasureWith("<MergeFile>bad.menu</MergeFile>" + all_), only_a_[0]), 1);
}

TEST_F(HostileMenu, DirectoryFilesAndLongPaths) {
  std::string directories;
  for (int i = 0; i < 3000; ++i) {
    directories.insert(0, "<DirectoryDir>d" + std::to_string(i) + "</DirectoryDir>");
    directories += "<Directory>d" + std::to_string(i) + "</Directory>";
  }
  EXPECT_EQ(MeasureWith(directories + all_), only_a_);
  tree_.Write("share/desktop-directories/d.directory", "[Desktop Entry]\nName=" + std::string(4000, 'n') + "\n");
  EXPECT_LT(MeasureWith(Times(50'000, "<Menu><Directory>d.directory</Directory>" + all_ + "</Menu>")).size(), 50'000u);
  EXPECT_EQ(Measure("<Menu><Name>" + std::string(3000, 'n') + "</Name><DefaultAppDirs/>" + all_ + "</Menu>"),
            Texts{"aa.desktop /" + std::string(2047, 'n')});
}

// Entities that expand without end, and files that only another program should read.
TEST_F(HostileMenu, Entities) {
  ASSERT_EQ(mkfifo(tree_.Path("dtd").c_str(), 0600), 0);
  const auto with_entities = [&](const std::string& declarations, const std::string& content) {
    return Measure("<!DOCTYPE Menu SYSTEM '" + tree_.Path("dtd") + "' [" + declarations +
                   "]><Menu><Name>Apps</Name><DefaultAppDirs/>" + content + "</Menu>");
  };
  std::string entities = "<!ENTITY e0 'aa.desktop'>";
  for (int i = 1; i < 30; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    entities += "<!ENTITY e" + std::to_string(i) + " '" + Times(10, inner) + "'>";
  }
  EXPECT_EQ(with_entities(entities, "<Include><Filename>&e0;</Filename></Include>"), only_a_);
  with_entities(entities, "<Name>&e29;</Name><AppDir>&e29;</AppDir><Include><Filename>&e29;</Filename></Include>");
  const std::string elements = "<!ENTITY e '" + Times(1000, "<a/>") + "'>";
  with_entities(elements, Times(10'000, "<Include><Filename>&e;</Filename></Include>"));
  tree_.Write("etc/menus/cdata.menu", "<Menu><Include><Filename><![CDATA[aa.desktop]]></Filename></Include></Menu>");
  EXPECT_EQ(with_entities(elements, Times(2000, "<AppDir>&e;</AppDir>") + "<MergeFile>cdata.menu</MergeFile>"),
            only_a_);
  EXPECT_EQ(with_entities("<!ENTITY x SYSTEM '" + tree_.Path("dtd") + "'>", "<AppDir>&x;</AppDir>" + all_), only_a_);
}

TEST(LoadBudget, TimeOfAShareEnds) {
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
  EXPECT_TRUE(budget.Spend(100'000, "")) << "the rest is left";
}

TEST_F(HostileMenu, ALoadEndsWhenItIsToldTo) {
  const Texts whole = MeasureWith(Times(2000, "<Menu>" + all_ + "</Menu>"));
  registry_.emplace();
  int asked = 0;
  const auto may_go_on = [&asked] { return ++asked < 5; };
  const MenuEntries menu = LoadApplicationsMenu(*registry_, desktop_, {.may_go_on = may_go_on});
  EXPECT_EQ(asked, 5);
  EXPECT_LT(menu.size(), whole.size());
  EXPECT_FALSE(IsCutOff());
}

}  // namespace
}  // namespace qel
