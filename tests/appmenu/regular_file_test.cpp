#include "appmenu/regular_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "support/wait_until.h"
#include "temp_tree.h"

namespace qel {
namespace {

// Drops what the file has in memory from `offset` on, where the file system has a disk.
void DropFromMemory(const std::string& path, off_t offset) {
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  fsync(file);
  posix_fadvise(file, offset, 0, POSIX_FADV_DONTNEED);
  close(file);
}

constexpr std::size_t kMapped = 8192;

// How many pages of the first kMapped bytes are.
std::ptrdiff_t PagesInMemory(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  void* const mapping = mmap(nullptr, kMapped, PROT_READ, MAP_SHARED, file, 0);
  std::array<unsigned char, kMapped / 4096> pages{};
  mincore(mapping, kMapped, pages.data());
  munmap(mapping, kMapped);
  close(file);
  return std::count_if(pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; });
}

// The content, read as the loaders do: at once if it is in memory, or else after others were asked for.
std::string ReadLater(FileOpener& opener, const std::string& path) {
  std::array<char, 32768> buffer{};
  RegularFile file = opener.Open(path.c_str());
  std::optional<std::size_t> size = file.ReadCached(buffer, opener.tells_cached());
  if (!size) {
    size = file.Read(buffer);
  }
  std::string content(buffer.data(), *size);
  while (*size == buffer.size()) {
    size = file.Read(buffer);
    content.append(buffer.data(), *size);
  }
  return content;
}

TEST(RegularFile, ContentIsTheSameWhereverItComesFrom) {
  const TempTree tree;
  for (const bool tells : {true, false}) {
    FileOpener opener;
    for (const std::size_t size :
         std::initializer_list<std::size_t>{0, 1, 4095, 4096, 4097, 8192, 32767, 32768, 32769, 65536, 100000}) {
      std::string content(size, ' ');
      for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(i % 251);
      }
      const std::string path = tree.Write("folder/file" + std::to_string(size), content);
      for (const off_t in_memory : {100000, 0, 4096, 8192, 32768}) {
        DropFromMemory(path, in_memory);
        opener.tells_cached() = tells;
        EXPECT_EQ(ReadLater(opener, path), content) << size << " bytes, in memory " << in_memory;
      }
      EXPECT_EQ(ReadWholeFile(path, size), content);
      EXPECT_EQ(ReadWholeFile(path, size - 1).has_value(), size == 0);
    }
  }
}

TEST(RegularFile, WhatIsNotInMemoryIsFetched) {
  const TempTree tree;
  const std::string path = tree.Write("file", std::string(kMapped, 'x'));
  std::array<char, 2 * kMapped> buffer{};
  for (bool tells : {true, false}) {
    DropFromMemory(path, 0);
    if (PagesInMemory(path) != 0) {
      GTEST_SKIP() << "the file system keeps its files in memory";
    }
    // A quick disk may have it there at once.
    EXPECT_EQ(RegularFile(path).ReadCached(buffer, tells).value_or(kMapped), kMapped);
    EXPECT_TRUE(test::WaitUntil([&] { return PagesInMemory(path) == kMapped / 4096; }));
  }
}

TEST(RegularFile, EverythingElseIsEmpty) {
  const TempTree tree;
  ASSERT_EQ(mkfifo(tree.Path("fifo").c_str(), 0600), 0);
  const int writer = open(tree.Path("fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "text", 4), 4);
  std::filesystem::create_directory(tree.Path("folder"));
  for (const bool tells : {true, false}) {
    for (const std::string& path : {tree.Path("fifo"), tree.Path("folder"), tree.Path("none"), std::string("/dev/zero"),
                                    std::string("/dev/null"), std::string("/dev/tty")}) {
      FileOpener opener;
      opener.tells_cached() = tells;
      EXPECT_EQ(ReadLater(opener, path), "") << path;
      EXPECT_EQ(ReadWholeFile(path, 100000).value_or(""), "") << path;
      EXPECT_EQ(RegularFile(path).size(), 0U) << path;
    }
  }
  std::array<char, 8> text{};
  EXPECT_EQ(read(writer, text.data(), text.size()), 4) << "nothing is taken out of a FIFO";
  close(writer);
}

TEST(FileOpener, FollowsThePathsFromFolderToFolder) {
  const TempTree tree;
  FileOpener opener;
  for (const char* name : {"a/1", "a/2", "a/b/1", "a/1", "ab/1", "a//1", "c", "a/b/1"}) {
    EXPECT_EQ(ReadLater(opener, tree.Write(name, name)), name);
  }
  EXPECT_FALSE(opener.Open(tree.Path("none/1").c_str()).is_open());
  EXPECT_FALSE(opener.Open(tree.Path("a/3").c_str()).is_open());
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(tree.Path("a"));
  EXPECT_EQ(ReadLater(opener, "2"), "a/2");
  EXPECT_EQ(ReadLater(opener, "./b/1"), "a/b/1");
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace qel
