// The icon theme from the settings of real desktops: GSettings with and without dconf, and GConf.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/session_bus.h"

namespace qel {
namespace {

using test::TempDir;

// In the script, $PROGRAM is the program that prints the themes.
std::string RunInSession(const TempDir& home, const std::string& script) {
  return RunOnSessionBus(home, script,
                         {{"XDG_CONFIG_HOME", home.Path() / "config"},
                          {"GSETTINGS_SCHEMA_DIR", std::nullopt},
                          {"GSETTINGS_BACKEND", std::nullopt},
                          {"DISPLAY", std::nullopt},
                          {"PROGRAM", THEME_NAME_PROGRAM}});
}

#define REQUIRE_LIBRARY(name)                                             \
  if (dlopen(name, RTLD_LAZY) == nullptr) {                               \
    ASSERT_EQ(std::getenv("CI"), nullptr) << name << " is not installed"; \
    GTEST_SKIP() << "NOT TESTED: " << name << " is not installed";        \
  }

// dconf and GConf leave threads and connections behind. The process must not crash when it unloads the libraries, loads
// them again or ends.
TEST(ThemeNameTest, GSettings) {
  REQUIRE_LIBRARY("libgio-2.0.so.0");
  const TempDir home;
  EXPECT_EQ(RunInSession(home,
                         "XDG_DATA_DIRS=\"$HOME\" \"$PROGRAM\" 1; \"$PROGRAM\" 1; "  // no schema; the default
                         "gsettings set org.gnome.desktop.interface icon-theme \"It's new\"; "
                         "\"$PROGRAM\" 20 >all; uniq -c all"),
            "|\nAdwaita|\n     20 It's new|\n");
}

TEST(ThemeNameTest, GConf) {
  REQUIRE_LIBRARY("libgconf-2.so.4");
  const TempDir home;
  for (const char* const folder : {".gconf/", ".gconf/desktop/", ".gconf/desktop/gnome/"}) {
    home.Write(folder + std::string("%gconf.xml"), "");
  }
  home.Write(".gconf/desktop/gnome/interface/%gconf.xml",
             "<?xml version=\"1.0\"?>\n<gconf><entry name=\"icon_theme\" mtime=\"1\" type=\"string\">"
             "<stringvalue>Old one</stringvalue></entry></gconf>\n");
  EXPECT_EQ(RunInSession(home, "GSETTINGS_BACKEND=memory \"$PROGRAM\" 20 >all; uniq -c all"),
            "     20 Adwaita|Old one\n");
}

}  // namespace
}  // namespace qel
