#include "files/regular_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel {
namespace {

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

TEST(RegularFile, NothingIsReadFromADevice) {
  char byte = 0;
  EXPECT_EQ(RegularFile("/dev/zero").Read({&byte, 1}), 0U);
}

}  // namespace
}  // namespace qel
