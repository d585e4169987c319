// The output of the menu check for strange names, and for all reasons why an entry is not in the menu.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

class MenuCheckTest : public testing::Test {
 protected:
  MenuCheckTest() {
    dir_.Write("etc/menus/applications.menu",
               "<Menu><Name>Apps</Name><DefaultAppDirs/><DefaultDirectoryDirs/><AppDir>" + In("more") +
                   "</AppDir><Include><Filename>one.desktop</Filename></Include><Menu><Name>M</Name>"
                   "<Include><Filename>out.desktop</Filename><Filename>secret.desktop</Filename></Include>"
                   "<Exclude><Filename>out.desktop</Filename></Exclude>"
                   "<Directory>hide.directory</Directory></Menu></Menu>");
    const std::pair<const char*, const char*> files[] = {
        {"share/applications/one.desktop", "Name=L\xe4tin \"\xe2\x82\xac\"\x1b\xc2\x9b\xed\xa0\x80."},
        {"share/applications/no-display.desktop", "NoDisplay=true"},
        {"share/applications/only.desktop", "OnlyShowIn=KDE;"},
        {"share/applications/left.desktop", ""},
        {"share/applications/out.desktop", ""},
        {"share/applications/secret.desktop", ""},
        {"share/desktop-directories/hide.directory", "NoDisplay=true"},
        {"more/one.desktop", ""}};
    for (const auto& [file, keys] : files) {
      dir_.Write(file, "[Desktop Entry]\n" + std::string(keys) + "\n");
    }
  }

  std::string In(const char* name) const { return dir_.Path() / name; }

  // Returns the standard output. The program's temporary directory does not exist.
  std::string Run(std::vector<std::string> arguments, int exit_code) {
    const std::string path = dir_.Write("output", "");
    const int output = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    arguments.insert(arguments.begin(), {MENU_CHECK, "--desktop=gnome"});
    test::ChildProcess check({.arguments = arguments,
                              .environment = {{"TMPDIR", In("none")},
                                              {"XDG_CONFIG_DIRS", In("etc")},
                                              {"XDG_DATA_DIRS", In("share")},
                                              {"XDG_MENU_PREFIX", std::nullopt}},
                              .standard_output = output});
    close(output);
    EXPECT_EQ(check.Wait().value_or(test::ChildStatus{}).exit_code, exit_code);
    std::ifstream file(path);
    std::string text(std::istreambuf_iterator<char>(file), {});
    while (text.find(dir_.Path()) != std::string::npos) {
      text.replace(text.find(dir_.Path()), dir_.Path().string().size(), "DIR");
    }
    return text;
  }

  test::TempDir dir_;
};

TEST_F(MenuCheckTest, PrintsTheMenuAndAbsentEntries) {
  EXPECT_EQ(
      Run({"--absent"}, 0),
      "/Apps\n"
      "  L\xef\xbf\xbdtin \"\xe2\x82\xac\"??\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd.  [one.desktop]  "
      "DIR/share/applications/one.desktop  icon=\n"
      "    has the same id and is not used: DIR/more/one.desktop\n"
      "left.desktop: unallocated: the rules of no menu select it  (DIR/share/applications/left.desktop)\n"
      "no-display.desktop: hidden: the file says NoDisplay=true  (DIR/share/applications/no-display.desktop)\n"
      "only.desktop: not shown on this desktop: OnlyShowIn does not list GNOME  (DIR/share/applications/only.desktop)\n"
      "out.desktop: excluded: the rules of /Apps/M select it and then take it out  "
      "(DIR/share/applications/out.desktop)\n"
      "secret.desktop: in a menu that is not shown: /Apps/M  (DIR/share/applications/secret.desktop)\n");
  EXPECT_EQ(Run({"--desktop=none"}, 2), "");
  std::filesystem::remove(In("etc/menus/applications.menu"));
  EXPECT_EQ(Run({}, 1), "");
}

TEST_F(MenuCheckTest, JsonIsUtf8) {
  EXPECT_EQ(Run({"--json", "one.desktop"}, 0),
            "[\n  {\"id\": \"one.desktop\", \"name\": \"L\xef\xbf\xbdtin "
            "\\\"\xe2\x82\xac\\\"\\u001b\\u009b\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd.\", "
            "\"path\": \"DIR/share/applications/one.desktop\", \"icon\": \"\", \"menus\": [\"/Apps\"]}\n]\n");
}

}  // namespace
}  // namespace qel
