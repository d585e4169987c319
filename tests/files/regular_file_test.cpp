#include "files/regular_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace {
std::size_t g_fetched = 0;  // the number of files that the system was asked to load
}

// Replaces the C library's function, because its effect cannot be seen on a file system in memory.
extern "C" ssize_t readahead(int, off64_t offset, std::size_t size) noexcept {
  g_fetched += offset == 0 && size != 0;
  return 0;
}

namespace qel {
namespace {

TEST(RegularFile, FilesAreFetchedAheadInOrder) {
  const test::TempDir tree;
  std::vector<std::string> paths{"/dev/zero", tree.Path() / "none"};  // neither is loaded in advance
  for (int i = 0; i < 100; ++i) {
    paths.push_back(tree.Write(std::to_string(i), std::to_string(i)));
  }
  std::size_t used = 0;
  ForEachFileAhead(paths, [&](std::size_t index, RegularFile& file) {
    EXPECT_EQ(index, used++);
    char text[8] = "";
    const std::size_t size = file.Read(text);
    EXPECT_EQ(std::string(text, size), index < 2 ? "" : std::to_string(index - 2));
    EXPECT_EQ(g_fetched, std::min<std::size_t>(index + 64, paths.size()) - 2);
    return index < 95;
  });
  EXPECT_EQ(used, 96U);
}

}  // namespace
}  // namespace qel
