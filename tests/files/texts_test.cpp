#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "files/key_file.h"
#include "files/paths.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

TEST(Paths, Parts) {
  EXPECT_EQ(DirName("x"), ".");
  EXPECT_EQ(BaseNameNoExt("/a/b.c.desktop"), "b.c");
  EXPECT_EQ(BaseNameNoExt("/a.d/b"), "b");
}

TEST(Paths, Normalize) {
  const std::pair<const char*, const char*> cases[] = {
      {"/usr/share/applications/../applications/./x.desktop", "/usr/share/applications/x.desktop"},
      {"/a/../../b", "/a/../../b"},
      {"a//b/", "/a/b"},
      {"/a/..", ""},
      {"/a\\/b/../c", "/c"},
      {"/..a/.b", "/..a/.b"},
  };
  for (const auto& [path, expected] : cases) {
    EXPECT_EQ(NormalizePath(path), expected) << path;
  }
}

TEST(Paths, DirectoriesWithoutVariables) {
  const test::ScopedEnvironment environment({{"XDG_CONFIG_DIRS", std::nullopt}, {"XDG_DATA_DIRS", std::nullopt}});
  EXPECT_EQ(GetConfigDirs(), std::vector<std::string>{"/etc/xdg"});
  EXPECT_EQ(GetDataDirs(), (std::vector<std::string>{"/usr/local/share", "/usr/share"}));
}

class KeyFile : public testing::Test {
 protected:
  // The value of "Name" in the group "Desktop Entry". A key with a regular expression makes the reader check every
  // line. The value must be the same with and without such a key.
  std::string Name(std::string_view content) {
    KeyFileValues values{{"Desktop Entry", {{"Name", "default"}, {"Name2", ""}}}};
    KeyFileValues by_line = values;
    by_line["Desktop Entry"]["\\(none"] = "";
    ReadKeyFile(tree_.Write("file", content), values);
    ReadKeyFile(tree_.Path() / "file", by_line);
    EXPECT_EQ(by_line["Desktop Entry"]["Name"], values["Desktop Entry"]["Name"]) << content.substr(0, 60);
    return values["Desktop Entry"]["Name"];
  }

  test::TempDir tree_;
};

TEST_F(KeyFile, LinesThatNameAValue) {
  using namespace std::string_literals;
  const std::string long_text(4000, 'v');
  const std::pair<std::string, std::string> cases[] = {
      {"[Desktop Entry]\nName = Text Editor\n", "Text Editor"},
      {"Name=early\n[Desktop Entry]\nName[de]=x\nName[de] = x\nNames=y\nX-Name=y\nName2=a\n Name=y\n#Name=y\n",
       "default"},
      {"[Desktop Entry]\nName=a\nName=b", "b"},
      {"[Desktop Entry]\nName==x \r\n", "=x \r"},
      {"[Desktop Entry]\nName=\n", ""},
      {"[Desktop Entry]\nName=a\n[Desktop Action new]\nName=b\n", "a"},
      {"[Other]\nName=a\n \t[Desktop Entry] \r\nName=b\n[Desktop Entry]x\nName=c\n", "c"},
      {"[Desktop Entry]]\nName=a\n[[Desktop Entry]\nName=b\n", "default"},
      {"[Desktop Entry]\nName=a\0b\n[X\0]\nName=c\0\n"s, "c"},
      {"[Desktop Entry]\0junk\nName=nul\xff\n"s, "nul\xff"},
      // A long line is split. The rest counts as a new line.
      {"[Desktop Entry]\nName=" + std::string(4090, 'x') + "Name=tail\n", "tail"},
      {"[Desktop Entry]\nName=" + std::string(4090, 'x') + "\nName2=q\n", std::string(4090, 'x')},
      {std::string(4095, '#') + "[Desktop Entry]\n" + std::string(4095, ']') + "Name=", ""},
      {"[Desktop Entry]\nName \t=" + std::string(70, '=') + "\n[", std::string(70, '=')},
      {std::string(100000, '#') + "\n[Desktop Entry]\n" + std::string(8192, '\n') + "Name=far", "far"},
      {"[Desktop Entry]\n#" + std::string(32730, 'p') + "\n\nName=" + long_text, long_text},
  };
  for (const auto& [content, expected] : cases) {
    EXPECT_EQ(Name(content), expected) << content.substr(0, 60);
  }
}

TEST_F(KeyFile, HugeFilesAreNotReadToTheirEnd) {
  const std::string path = tree_.Write("file", "[g]\nk=begin\n");
  std::filesystem::resize_file(path, std::uintmax_t{1} << 30);  // a sparse file
  std::ofstream(path, std::ios::app) << "\n[g]\nk=end\n";
  KeyFileValues values{{"g", {{"k", ""}}}};
  ReadKeyFile(path, values);
  EXPECT_EQ(values["g"]["k"], "begin");
}

TEST_F(KeyFile, KeysAreRegularExpressions) {
  const test::LogCapture log;
  KeyFileValues values{{"g", {{"A", ""}, {"N.me", ""}, {"Z(", "kept"}}}};
  ReadKeyFile(tree_.Write("file", "[g]\nName=x\n"), values);
  EXPECT_EQ(values["g"]["N.me"], "") << "with an invalid expression nothing is read";
  EXPECT_TRUE(log.Contains("Error: Failed to compile regex for record 'Z('"));
  values = {{"g", {{"N.me", ""}}}};
  ReadKeyFile(tree_.Path() / "file", values);
  EXPECT_EQ(values["g"]["N.me"], "x");
}

}  // namespace
}  // namespace qel
