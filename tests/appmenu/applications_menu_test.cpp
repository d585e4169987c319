#include "appmenu/applications_menu.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "menu_fixture.h"

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
    void OnMenuDropped(std::string_view menu, MenuDropped) override { dropped.emplace_back(menu); }
    std::map<std::string, HiddenBy> hidden;
    std::map<std::string, std::string> excluded;
    Texts dropped;
  } recorder;
  WriteApplication("aa.desktop", "NotShowIn=GNOME");
  WriteApplication("bb.desktop", "");
  observer_ = &recorder;
  LoadWith(Menu("M", "<Include><All/></Include><Exclude><All/></Exclude>") + Menu("U", "<OnlyUnallocated/>"));
  EXPECT_EQ(recorder.hidden, (std::map<std::string, HiddenBy>{{"aa.desktop", HiddenBy::kNotShowIn},
                                                              {"bb.desktop", HiddenBy::kNothing}}));
  EXPECT_EQ(recorder.excluded, (std::map<std::string, std::string>{{"bb.desktop", "/Apps/M"}}));
  EXPECT_EQ(recorder.dropped, Texts{"/Apps/U"});
}

// Nothing of what follows may crash, hang or cost more than the bad part.
TEST_F(ApplicationsMenu, SurvivesHostileFiles) {
  WriteApplication("aa.desktop", "");
  WriteApplication("quote\"\n$(id).desktop", "");
  ASSERT_EQ(mkfifo(tree_.Path("share/applications/fifo.desktop").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(tree_.Path("dtd").c_str(), 0600), 0);
  std::filesystem::create_directory(tree_.Path("share/applications/folder.desktop"));
  WriteApplication("huge.desktop", std::string(4 << 20, 'x'));
  const std::string all = "<Include><Filename>aa.desktop</Filename></Include>";
  const auto times = [](int count, const std::string& text) {
    std::string result;
    while (count-- > 0) {
      result += text;
    }
    return result;
  };
  const Texts only_a{"aa.desktop /Apps"};

  EXPECT_EQ(LoadWith("<Include><All/></Include>").size(), 5U);
  EXPECT_EQ(LoadWith(times(10000, "<Menu>") + times(10000, "</Menu>") + all), Texts{}) << "too deep for the parser";
  EXPECT_EQ(LoadWith(times(240, "<Menu><Name>m</Name>") + times(240, "</Menu>") + all), only_a);
  EXPECT_TRUE(IsLogged("Warning: The applications menu has menus nested too deep"));
  EXPECT_EQ(LoadWith(times(150000, "<Menu><Name>m</Name> <Include><Filename>aa.desktop</Filename></Include></Menu>")),
            Texts{"aa.desktop /Apps/m"});
  EXPECT_EQ(LoadWith(times(100000, "<AppDir>/none</AppDir><MergeFile>/none</MergeFile>") + all), only_a);
  std::string directories;
  for (int i = 0; i < 3000; ++i) {
    directories.insert(0, "<DirectoryDir>d" + std::to_string(i) + "</DirectoryDir>");
    directories += "<Directory>d" + std::to_string(i) + "</Directory>";
  }
  EXPECT_EQ(LoadWith(directories + all), only_a);
  EXPECT_TRUE(IsLogged("Warning: The applications menu has too many directory files"));

  // Three files that merge one another, and one that merges itself under ever longer names, twice each time.
  tree_.Write("etc/menus/1.menu", "<Menu><MergeFile>2.menu</MergeFile>" + all + "</Menu>");
  tree_.Write("etc/menus/2.menu", "<Menu><MergeFile>3.menu</MergeFile></Menu>");
  tree_.Write("etc/menus/3.menu", "<Menu><MergeFile>1.menu</MergeFile></Menu>");
  EXPECT_EQ(LoadWith("<MergeFile>1.menu</MergeFile>"), only_a);
  EXPECT_EQ(LoadWith(all + "<MergeFile>./applications.menu</MergeFile><MergeFile>.//applications.menu</MergeFile>"),
            only_a);
  EXPECT_TRUE(IsLogged("Warning: The applications menu has too long a chain of merged menu files"));

  // What a bad file uses up does not harm a good one behind it.
  tree_.Write("etc/menus/bad.menu",
              "<Menu><MergeFile>./bad.menu</MergeFile><MergeFile>././bad.menu</MergeFile></Menu>");
  for (int i = 0; i < 9; ++i) {
    tree_.Write("etc/menus/net/" + std::to_string(i) + ".menu", "<Menu><MergeDir>.</MergeDir></Menu>");
  }
  EXPECT_EQ(LoadWith("<MergeFile>bad.menu</MergeFile><MergeDir>net</MergeDir><MergeFile>1.menu</MergeFile>"), only_a);
  EXPECT_TRUE(IsLogged("Warning: The applications menu has too many menu files merged by one"));
  EXPECT_EQ(LoadWith(times(2000, "<DefaultMergeDirs/><MergeDir>net</MergeDir>") + all), only_a);
  EXPECT_EQ(LoadWith("<DirectoryDir>/" + std::string(20000, 'd') + "</DirectoryDir>" +
                     times(5000, "<Menu><Directory>d</Directory></Menu>") + all),
            only_a);
  tree_.Write("etc/menus/applications.menu",
              "<Menu><Name>" + std::string(3000, 'n') + "</Name><DefaultAppDirs/>" + all + "</Menu>");
  EXPECT_EQ(Load(), Texts{"aa.desktop /" + std::string(2047, 'n')});
  tree_.Write("share/desktop-directories/d.directory", "[Desktop Entry]\nName=" + std::string(4000, 'n') + "\n");
  EXPECT_LT(LoadWith(times(20000, "<Menu><Directory>d.directory</Directory>" + all + "</Menu>")).size(), 20000u);
  EXPECT_TRUE(IsLogged("Warning: The applications menu has too many menus with entries"));

  // Entities that expand without end, and files that only another program should read.
  std::string entities = "<!ENTITY e0 'aa.desktop'>";
  for (int i = 1; i < 30; ++i) {
    const std::string inner = "&e" + std::to_string(i - 1) + ";";
    entities += "<!ENTITY e" + std::to_string(i) + " '" + times(10, inner) + "'>";
  }
  const auto with_entities = [&](const std::string& declarations, const std::string& content) {
    registry_.emplace();
    tree_.Write("etc/menus/applications.menu", "<!DOCTYPE Menu SYSTEM '" + tree_.Path("dtd") + "' [" + declarations +
                                                   "]><Menu><Name>Apps</Name><DefaultAppDirs/>" + content + "</Menu>");
    return Load();
  };
  EXPECT_EQ(with_entities(entities, "<Include><Filename>&e0;</Filename></Include>"), only_a);
  with_entities(entities, "<Name>&e29;</Name><AppDir>&e29;</AppDir><Include><Filename>&e29;</Filename></Include>");
  with_entities("<!ENTITY e '" + times(1000, "<a/>") + "'>",
                times(50000, "<Include><Filename>&e;</Filename></Include>"));
  EXPECT_TRUE(IsLogged("Warning: The applications menu has too much text in entities"));
  tree_.Write("etc/menus/cdata.menu", "<Menu><Include><Filename><![CDATA[aa.desktop]]></Filename></Include></Menu>");
  EXPECT_EQ(with_entities("<!ENTITY e '" + times(1000, "<a/>") + "'>",
                          times(20000, "<AppDir>&e;</AppDir>") + "<MergeFile>cdata.menu</MergeFile>"),
            only_a);
  EXPECT_EQ(with_entities("<!ENTITY x SYSTEM '" + tree_.Path("dtd") + "'>", "<AppDir>&x;</AppDir>" + all), only_a);
}

}  // namespace
}  // namespace qel
