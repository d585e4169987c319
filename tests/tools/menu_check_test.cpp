// What the menu check prints of a menu with names of every kind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
               "<Menu><Name>Apps</Name><DefaultAppDirs/><Include><All/></Include></Menu>");
    dir_.Write("share/applications/one.desktop", "[Desktop Entry]\nName=L\xe4tin \"\xe2\x82\xac\"\x1b\xc2\x9b\x9b.\n");
    dir_.Write("share/applications/two.desktop", "[Desktop Entry]\nNoDisplay=true\n");
  }

  // Standard output; the temporary directory does not exist.
  std::string Run(std::vector<std::string> arguments, int exit_code) {
    const std::string path = dir_.Write("output", "");
    const int output = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    arguments.insert(arguments.begin(), MENU_CHECK);
    test::ChildProcess check({.arguments = arguments,
                              .environment = {{"TMPDIR", dir_.Path() / "none"},
                                              {"XDG_CONFIG_DIRS", dir_.Path() / "etc"},
                                              {"XDG_DATA_DIRS", dir_.Path() / "share"},
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

TEST_F(MenuCheckTest, PrintsTheMenuAndWhatIsAbsent) {
  EXPECT_EQ(
      Run({"--absent"}, 0),
      "/Apps\n"
      "  L\xef\xbf\xbdtin \"\xe2\x82\xac\"??\xef\xbf\xbd.  [one.desktop]  DIR/share/applications/one.desktop  icon=\n"
      "two.desktop: hidden: the file says NoDisplay=true  (DIR/share/applications/two.desktop)\n");
  EXPECT_EQ(Run({"--desktop=none"}, 2), "");
}

TEST_F(MenuCheckTest, JsonIsUtf8) {
  EXPECT_EQ(
      Run({"--json", "one.desktop"}, 0),
      "[\n  {\"id\": \"one.desktop\", \"name\": \"L\xef\xbf\xbdtin \\\"\xe2\x82\xac\\\"\\u001b\\u009b\xef\xbf\xbd.\", "
      "\"path\": \"DIR/share/applications/one.desktop\", \"icon\": \"\", \"menus\": [\"/Apps\"]}\n]\n");
}

}  // namespace
}  // namespace qel
