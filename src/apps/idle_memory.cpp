#include "apps/idle_memory.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace qel {
namespace {

struct Mapping {
  std::uintptr_t begin;
  std::uintptr_t end;
};

// The code of the program and its libraries, without that of which a page was changed.
std::vector<Mapping> UnchangedCode() {
  std::vector<Mapping> mappings;
  std::ifstream file("/proc/self/smaps");
  Mapping mapping{};
  bool is_candidate = false;
  for (std::string line; std::getline(file, line);) {
    Mapping next{};
    char access[5] = "";
    unsigned long inode = 0;
    unsigned long changed = 0;
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s %*s %*s %lu", &next.begin, &next.end, access,
                    &inode) == 4) {
      mapping = next;
      is_candidate = std::string_view(access) == "r-xp" && inode != 0;
    } else if (is_candidate && std::sscanf(line.c_str(), "Anonymous: %lu kB", &changed) == 1 && changed == 0) {
      mappings.push_back(mapping);
    }
  }
  return mappings;
}

}  // namespace

void ReleaseIdleMemory() {
  for (const Mapping& mapping : UnchangedCode()) {
    madvise(reinterpret_cast<void*>(mapping.begin), mapping.end - mapping.begin, MADV_DONTNEED);
  }
  malloc_trim(0);
}

}  // namespace qel
