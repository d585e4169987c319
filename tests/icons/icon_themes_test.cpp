// The base directories and the themes of the desktops. The samples of the fuzz target "icon_themes" check the order of
// inheritance.
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
  void AddTheme(const std::string& name, const std::string& base = "data/icons") {
    dir_.Write(base + "/" + name + "/index.theme", "[Icon Theme]\nName=x\n");
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
      AddTheme("t", base);
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

TEST_F(IconThemesTest, EachDesktopHasAThemeAndLaterDiscoveriesAppend) {
  AddTheme("hicolor");
  AddTheme("ubuntu-mono-light");
  const std::string hicolor = In("data/icons/hicolor");
  dir_.Write("home/.kde/share/config/kdeglobals", "[Icons]\nTheme=ubuntu-mono-light\n");
  themes_.DiscoverIconThemes(DesktopKind::kGnome);  // its settings library is not loaded
  themes_.DiscoverIconThemes(DesktopKind::kXfce);
  EXPECT_THAT(themes_.ThemeDirs(), ElementsAre(hicolor));
  themes_.DiscoverIconThemes(DesktopKind::kUnity);
  EXPECT_THAT(themes_.ThemeDirs(), ElementsAre(hicolor, In("data/icons/ubuntu-mono-light"), hicolor));
  const LogCapture log;
  themes_.DiscoverIconThemes(DesktopKind::kKde);
  EXPECT_TRUE(log.Contains("Found icon theme for KDE: 'ubuntu-mono-light'"));
  EXPECT_EQ(log.Count(" - " + hicolor), 2);
}

}  // namespace
}  // namespace qel
