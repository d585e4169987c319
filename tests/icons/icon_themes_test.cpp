// The base directories and the order of the themes.
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
  // Adds a theme in `base`.
  void AddTheme(const std::string& name, const std::string& inherits, const std::string& base = "data/icons") {
    dir_.Write(base + "/" + name + "/index.theme", "[Icon Theme]\nName=x\nInherits=" + inherits + "\n");
  }

  // The names of the theme directories in the list.
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
  // Each round removes the theme from the base directory in which it was found.
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
  AddTheme("a", "b,c, f,hicolor,f");  // no theme has the name " f"
  AddTheme("b", "b1,a");              // inherits from its child "a"
  AddTheme("b1", "b1");
  AddTheme("c", "missing,b1");
  for (const char* const root : {"e", "f", "hicolor"}) {
    AddTheme(root, "");
  }
  AddTheme("b", "e", "home/.icons");  // takes precedence over the theme "b" in data/icons
  dir_.Write("home/.kde/share/config/kdeglobals", "[Icons]\nTheme=a\n");
  const LogCapture log;
  themes_.DiscoverIconThemes(DesktopKind::kKde);
  // "hicolor" is appended even though the list already contains it.
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
