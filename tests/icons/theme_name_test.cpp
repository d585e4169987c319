// The icon theme in the settings stores of real desktops: GSettings with its own and with dconf's store, and GConf.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

using test::ChildOptions;
using test::ChildProcess;

// Runs a shell script on a session bus of its own with a fresh home; returns what it printed. $PROGRAM names the
// program that prints the themes.
std::string RunInSession(const test::TempDir& home, const std::string& script) {
  const std::string output_path = home.Write("output", "").string();
  FILE* const output = std::fopen(output_path.c_str(), "r+");
  ChildProcess session({.arguments = {"dbus-run-session", "--", "sh", "-ec", "cd \"$HOME\"; " + script},
                        .environment = {{"HOME", home.Path().string()},
                                        {"XDG_CONFIG_HOME", home.Path().string() + "/config"},
                                        {"XDG_RUNTIME_DIR", home.Path().string()},
                                        {"GSETTINGS_SCHEMA_DIR", std::nullopt},
                                        {"GSETTINGS_BACKEND", std::nullopt},
                                        {"DISPLAY", std::nullopt},
                                        {"ASAN_OPTIONS", "detect_leaks=0"},  // the libraries keep what they allocate
                                        {"PROGRAM", THEME_NAME_PROGRAM}},
                        .standard_output = fileno(output)});
  const auto status = session.Wait(std::chrono::seconds(60));
  EXPECT_TRUE(status && status->exit_code == 0) << script;
  std::string text;
  std::rewind(output);
  for (int c = 0; (c = std::fgetc(output)) != EOF;) {
    text.push_back(static_cast<char>(c));
  }
  std::fclose(output);
  return text;
}

bool HasLibrary(const char* name) {
  void* const library = dlopen(name, RTLD_LAZY);
  if (library != nullptr) {
    dlclose(library);
  }
  return library != nullptr;
}

#define REQUIRE_LIBRARY(name)                                             \
  if (!HasLibrary(name)) {                                                \
    ASSERT_EQ(std::getenv("CI"), nullptr) << name << " is not installed"; \
    GTEST_SKIP() << "NOT TESTED: " << name << " is not installed";        \
  }

// The stores differ in what they leave behind: dconf's and GConf's keep threads and connections. Either way the process
// must get through unloading the libraries, loading them again and its own end.
TEST(ThemeNameTest, GSettings) {
  REQUIRE_LIBRARY("libgio-2.0.so.0");
  const test::TempDir home;
  EXPECT_EQ(RunInSession(home,
                         "\"$PROGRAM\" 1; gsettings set org.gnome.desktop.interface icon-theme \"It's new\"; "
                         "\"$PROGRAM\" 20 >all; uniq -c all"),
            "Adwaita|\n     20 It's new|\n");
}

TEST(ThemeNameTest, GSettingsWithoutTheSchemaFindsNothing) {
  REQUIRE_LIBRARY("libgio-2.0.so.0");
  const test::TempDir home;
  EXPECT_EQ(RunInSession(home, "XDG_DATA_DIRS=\"$HOME\" \"$PROGRAM\""), "|\n");
}

TEST(ThemeNameTest, GConf) {
  REQUIRE_LIBRARY("libgconf-2.so.4");
  const test::TempDir home;
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
