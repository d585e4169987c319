#include "apps/idle_memory.h"

#include <elf.h>
#include <link.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qel {
namespace {

// Whether the loader wrote into the object's code, which its file then does not have.
bool HasRelocatedCode(const dl_phdr_info& object, std::span<const ElfW(Phdr)> segments) {
  const auto dynamic = std::ranges::find(segments, PT_DYNAMIC, &ElfW(Phdr)::p_type);
  if (dynamic == segments.end()) {
    return false;
  }
  const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(object.dlpi_addr + dynamic->p_vaddr);
  for (; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_TEXTREL || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
      return true;
    }
  }
  return false;
}

// Drops what the process has mapped of an object's code and constants.
int ReleaseObject(dl_phdr_info* object, std::size_t /*size*/, void* /*context*/) {
  static const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::span segments(object->dlpi_phdr, object->dlpi_phnum);
  const bool is_the_kernels = reinterpret_cast<std::uintptr_t>(object->dlpi_phdr) / page * page ==
                              static_cast<std::uintptr_t>(getauxval(AT_SYSINFO_EHDR));
  if (is_the_kernels || HasRelocatedCode(*object, segments)) {
    return 0;
  }
  for (const ElfW(Phdr) & segment : segments) {
    const std::uintptr_t begin = (object->dlpi_addr + segment.p_vaddr + page - 1) / page * page;
    const std::uintptr_t end = (object->dlpi_addr + segment.p_vaddr + segment.p_memsz) / page * page;
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0 && begin < end) {
      madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
    }
  }
  return 0;
}

}  // namespace

void ReleaseIdleMemory() {
  malloc_trim(0);
  dl_iterate_phdr(ReleaseObject, nullptr);
}

}  // namespace qel
