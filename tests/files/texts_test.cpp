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

// The samples of the fuzz target "key_file" check the lines.

TEST(KeyFile, HugeFilesAreNotReadToTheirEnd) {
  const test::TempDir tree;
  const std::string path = tree.Write("file", "[g]\nk=begin\n");
  std::filesystem::resize_file(path, std::uintmax_t{1} << 30);  // a sparse file
  std::ofstream(path, std::ios::app) << "\n[g]\nk=end\n";
  KeyFileValues values{{"g", {{"k", ""}}}};
  ReadKeyFile(path, values);
  EXPECT_EQ(values["g"]["k"], "begin");
}

TEST(KeyFile, KeysAreRegularExpressions) {
  const test::TempDir tree;
  const test::LogCapture log;
  KeyFileValues values{{"g", {{"A", ""}, {"N.me", ""}, {"Z(", "kept"}}}};
  ReadKeyFile(tree.Write("file", "[g]\nName=x\n"), values);
  EXPECT_EQ(values["g"]["N.me"], "") << "with an invalid expression nothing is read";
  EXPECT_TRUE(log.Contains("Error: Failed to compile regex for record 'Z('"));
  values = {{"g", {{"N.me", ""}}}};
  ReadKeyFile(tree.Path() / "file", values);
  EXPECT_EQ(values["g"]["N.me"], "x");
}

}  // namespace
}  // namespace qel
