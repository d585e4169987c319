#include "apps/idle_memory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "support/temp_dir.h"

namespace qel {
namespace {

constexpr std::size_t kSize = 16 * 4096;

// A private mapping of a file full of "x", of which all pages have been read.
char* MapFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  void* const mapping = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0);
  close(file);
  EXPECT_EQ(std::string(static_cast<char*>(mapping), kSize), std::string(kSize, 'x'));
  return static_cast<char*>(mapping);
}

// KiB of a mapping that the process has resident; -1 when it is not found.
long ResidentOf(const char* mapping) {
  std::ostringstream begin;
  begin << std::hex << reinterpret_cast<std::uintptr_t>(mapping) << '-';
  std::ifstream file("/proc/self/smaps");
  std::string line;
  while (std::getline(file, line) && !line.starts_with(begin.str())) {
  }
  while (std::getline(file, line) && !line.starts_with("Rss:")) {
  }
  return file ? std::stol(line.substr(std::strlen("Rss:"))) : -1;
}

TEST(IdleMemory, DropsCodeAndKeepsWhatWasChanged) {
  const test::TempDir directory;
  char* const unchanged = MapFile(directory.Write("unchanged", std::string(kSize, 'x')));
  char* const changed = MapFile(directory.Write("changed", std::string(kSize, 'x')));
  changed[5000] = 'y';
  mprotect(unchanged, kSize, PROT_READ | PROT_EXEC);
  mprotect(changed, kSize, PROT_READ | PROT_EXEC);
  ASSERT_EQ(ResidentOf(unchanged), static_cast<long>(kSize / 1024));

  ReleaseIdleMemory();
  EXPECT_EQ(ResidentOf(unchanged), 0);
  EXPECT_EQ(unchanged[5000], 'x');
  EXPECT_EQ(changed[5000], 'y');
  EXPECT_EQ(changed[0], 'x');
  munmap(unchanged, kSize);
  munmap(changed, kSize);
}

}  // namespace
}  // namespace qel
