#include "files/find_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "support/temp_dir.h"

namespace qel {
namespace {

// The output of the command find, with the names of each folder in byte order.
std::vector<std::string> Find(const std::string& directory, const std::string& pattern) {
  std::vector<std::string> paths;
  FILE* output = popen(("LC_ALL=C find '" + directory + "' -name '" + pattern + "' 2>/dev/null").c_str(), "r");
  char line[4096];
  while (std::fgets(line, sizeof line, output) != nullptr) {
    paths.emplace_back(line);
    paths.back().pop_back();
  }
  pclose(output);
  std::ranges::sort(paths, {}, [](std::string path) {
    std::ranges::replace(path, '/', '\1');
    return path;
  });
  return paths;
}

TEST(FindFiles, ListsWhatFindLists) {
  const test::TempDir tree;
  for (const char* name : {"b.menu", "a.menu", "sub/c.menu", "sub.menu/d.menu", "sub.menu/e.txt", ".h.menu", ".menu",
                           "x/y/z/q.menu", "x.menu.bak", "A.menu", "x[1].menu", "b/2.menu", "b/1.menu"}) {
    tree.Write(name, "");
  }
  std::filesystem::create_symlink("..", tree.Path() / "sub/loop.menu");
  std::filesystem::create_symlink("sub", tree.Path() / "link");
  std::filesystem::create_symlink("nothing", tree.Path() / "dangling.menu");
  mkfifo((tree.Path() / "fifo.menu").c_str(), 0600);
  for (const char* start : {"", "/", "//", "/sub", "/sub.menu", "/sub.menu/", "/link", "/link/", "/a.menu", "/none",
                            "/sub/../sub", "/dangling.menu"}) {
    for (const char* pattern : {"*.menu", "a.menu", "[ab].menu", "*", "x\\[1].menu"}) {
      const std::string directory = tree.Path().string() + start;
      EXPECT_EQ(FindFiles(directory, pattern), Find(directory, pattern)) << start << " " << pattern;
    }
  }
  EXPECT_TRUE(FindFiles("", "*").empty());
}

}  // namespace
}  // namespace qel
