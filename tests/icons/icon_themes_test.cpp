// Base directories and the order of the themes.
#include "icons/icon_themes.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

using test::LogCapture;
using test::ScopedEnvironment;
using testing::ElementsAre;

class IconThemesTest : public testing::Test {
 protected:
  // A theme in the icon directory of the data directory, or in another one.
  void AddTheme(const std::string& name, const std::string& inherits, const std::string& base = "data/icons") {
    dir_.Write(base + "/" + name + "/index.theme", "[Icon Theme]\nName=x\nInherits=" + inherits + "\n");
  }

  // The theme list, without the data directory's part of the paths.
  std::vector<std::string> Themes() const {
    std::vector<std::string> names;
    for (const std::string& dir : themes_.ThemeDirs()) {
      names.push_back(dir.substr(dir.rfind('/') + 1));
    }
    return names;
  }

  std::string In(const std::string& path) const { return dir_.Path().string() + "/" + path; }

  test::TempDir dir_;
  ScopedEnvironment environment_{{{"HOME", In("home")}, {"XDG_DATA_DIRS", In("data")}}};
  IconThemes themes_;
};

TEST_F(IconThemesTest, BaseDirectoriesComeFromHomeAndTheDataDirectories) {
  // The first base directory that has a theme gives it: one is taken away after the other.
  const auto places = [&](DesktopKind kind) {
    themes_.DiscoverIconThemes(kind);
    const std::string bases[] = {"home/.kde/share/icons", "home/.icons", "data/icons", "more/icons"};
    for (const std::string& base : bases) {
      AddTheme("t", "", base);
    }
    std::vector<std::string> found;
    for (std::string dir; !(dir = themes_.FindIconThemeDir("t")).empty();) {
      found.push_back(dir);
      std::filesystem::remove_all(dir);
    }
    return found;
  };
  dir_.Write("home/.kde/share/icons/x", "");
  EXPECT_THAT(places(DesktopKind::kXfce), ElementsAre(In("home/.icons/t"), In("data/icons/t")));
  EXPECT_THAT(places(DesktopKind::kKde),
              ElementsAre(In("home/.kde/share/icons/t"), In("home/.icons/t"), In("data/icons/t")));
  const ScopedEnvironment other({{"HOME", std::nullopt}, {"XDG_DATA_DIRS", In("more") + "::" + In("data") + ":"}});
  EXPECT_THAT(places(DesktopKind::kKde), ElementsAre(In("more/icons/t"), In("data/icons/t")));
}

TEST_F(IconThemesTest, AncestorsFollowDepthFirst) {
  AddTheme("a", "b,c, f,hicolor,f");  // " f" is no theme's name
  AddTheme("b", "b1,a");              // back to where it came from
  AddTheme("b1", "b1");
  AddTheme("c", "missing,b1");
  for (const char* const root : {"e", "f", "hicolor"}) {
    AddTheme(root, "");
  }
  AddTheme("b", "e", "home/.icons");  // the home directory's theme comes before the one of the same name
  dir_.Write("home/.kde/share/config/kdeglobals", "[Icons]\nTheme=a\n");
  const LogCapture log;
  themes_.DiscoverIconThemes(DesktopKind::kKde);
  // "hicolor" is there already, but not at the end.
  EXPECT_THAT(Themes(), ElementsAre("a", "b", "e", "c", "b1", "hicolor", "f", "hicolor"));
  EXPECT_EQ(themes_.ThemeDirs()[1], In("home/.icons/b"));
  EXPECT_TRUE(log.Contains("Found icon theme for KDE: 'a'"));
  EXPECT_EQ(log.Count(" - " + In("data/icons/hicolor")), 2);
}

TEST_F(IconThemesTest, EachDesktopHasAThemeAndLaterDiscoveriesAppend) {
  AddTheme("hicolor", "");
  AddTheme("ubuntu-mono-light", "");
  themes_.DiscoverIconThemes(DesktopKind::kGnome);  // its settings library is not loaded
  themes_.DiscoverIconThemes(DesktopKind::kXfce);
  EXPECT_THAT(Themes(), ElementsAre("hicolor"));
  themes_.DiscoverIconThemes(DesktopKind::kUnity);
  EXPECT_THAT(Themes(), ElementsAre("hicolor", "ubuntu-mono-light", "hicolor"));
}

}  // namespace
}  // namespace qel
