#include "files/regular_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel {
namespace {

TEST(RegularFile, ContentIsReadInParts) {
  const test::TempDir tree;
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 1, 4096, 32767, 32768, 32769, 100000}) {
    std::string content(size, ' ');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i % 251);
    }
    const std::string path = tree.Write("file", content);
    EXPECT_EQ(RegularFile(path).size(), size);
    EXPECT_EQ(ReadWholeFile(path, size), content);
    EXPECT_EQ(ReadWholeFile(path, size - 1).has_value(), size == 0);
  }
}

TEST(RegularFile, FilesAheadAreFetchedFromTheDisk) {
  const test::TempDir tree;
  const std::string path = tree.Write("file", "text");
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  fsync(file);
  posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  const auto is_in_memory = [&] {
    void* const mapping = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0);
    unsigned char page = 0;
    mincore(mapping, 4096, &page);
    munmap(mapping, 4096);
    return (page & 1) != 0;
  };
  if (is_in_memory()) {
    GTEST_SKIP() << "the file system keeps its files in memory";
  }
  bool was_fetched = false;
  ForEachFileAhead({(tree.Path() / "first"), path}, [&](std::size_t index, RegularFile&) {
    was_fetched = index == 0 && test::WaitUntil(is_in_memory);
    return false;
  });
  EXPECT_TRUE(was_fetched);
  close(file);
}

TEST(RegularFile, EverythingElseIsEmpty) {
  const test::TempDir tree;
  ASSERT_EQ(mkfifo((tree.Path() / "fifo").c_str(), 0600), 0);
  const int writer = open((tree.Path() / "fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "text", 4), 4);
  std::filesystem::create_directory(tree.Path() / "folder");
  const std::vector<std::string> paths{
      (tree.Path() / "fifo"), tree.Path() / "folder", tree.Path() / "none", "/dev/zero", "/dev/null", "/dev/tty"};
  ForEachFileAhead(paths, [&](std::size_t index, RegularFile& file) {
    std::array<char, 8> text{};
    EXPECT_EQ(file.Read(text), 0U) << paths[index];
    EXPECT_EQ(file.size(), 0U) << paths[index];
    return true;
  });
  std::array<char, 8> text{};
  EXPECT_EQ(read(writer, text.data(), text.size()), 4) << "nothing is taken out of a FIFO";
  close(writer);
}

}  // namespace
}  // namespace qel
