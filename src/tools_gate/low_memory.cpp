#include "tools_gate/low_memory.h"

#include <sys/mman.h>

#include <cstring>

namespace qel {
namespace {

// Enough for every message without an icon, and for icons up to about 110 x 110 pixels. A page needs memory only after
// its first use.
constexpr std::size_t kThreadAreaSize = std::size_t{64} * 1024;

constexpr int kProtection = PROT_READ | PROT_WRITE;
constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS;

[[maybe_unused]] bool IsLow(const void* start, std::size_t size) {
  constexpr std::uint64_t kEnd = std::uint64_t{1} << 32;
  return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(start)) + size <= kEnd;
}

// Searches for free address space from 256 MiB upwards, in steps of 1 MiB.
[[maybe_unused]] void* MapInLowGap(std::size_t size, int flags) {
  constexpr std::uint64_t kFirst = std::uint64_t{256} << 20;
  constexpr std::uint64_t kEnd = std::uint64_t{1} << 32;
  constexpr std::uint64_t kStep = std::uint64_t{1} << 20;
  for (std::uint64_t start = kFirst; start + size <= kEnd; start += kStep) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    void* const wanted = reinterpret_cast<void*>(static_cast<std::uintptr_t>(start));
    void* const mapped = mmap(wanted, size, kProtection, flags | MAP_FIXED_NOREPLACE, -1, 0);
    if (mapped == wanted) {
      return mapped;
    }
    if (mapped != MAP_FAILED) {
      munmap(mapped, size);  // old kernels ignore MAP_FIXED_NOREPLACE and use the address as a hint
    }
  }
  return nullptr;
}

// Maps memory below 4 GiB. Null when there is none.
std::byte* Map(std::size_t size, int flags) {
  void* mapped = MAP_FAILED;
  if constexpr (kEveryAddressIsLow) {
    mapped = mmap(nullptr, size, kProtection, flags, -1, 0);
    return mapped == MAP_FAILED ? nullptr : static_cast<std::byte*>(mapped);
  }
#ifdef MAP_32BIT
  mapped = mmap(nullptr, size, kProtection, flags | MAP_32BIT, -1, 0);
  if (mapped != MAP_FAILED && !IsLow(mapped, size)) {
    munmap(mapped, size);
    mapped = MAP_FAILED;
  }
#endif
  // This processor has no MAP_32BIT, or the range of that flag (below 2 GiB) is full.
  return static_cast<std::byte*>(mapped != MAP_FAILED ? mapped : MapInLowGap(size, flags));
}

// The area that a thread keeps, mapped at its first use.
class ThreadArea {
 public:
  ThreadArea() = default;
  ~ThreadArea() {
    if (data_ != nullptr) {
      munmap(data_, kThreadAreaSize);
    }
  }
  ThreadArea(const ThreadArea&) = delete;
  ThreadArea& operator=(const ThreadArea&) = delete;

  // Null when it is in use, or when there is no memory for it.
  std::byte* Take() {
    if (taken_) {
      return nullptr;
    }
    if (data_ == nullptr) {
      data_ = Map(kThreadAreaSize, kFlags);
    }
    taken_ = data_ != nullptr;
    return data_;
  }

  void GiveBack() { taken_ = false; }

 private:
  std::byte* data_ = nullptr;
  bool taken_ = false;
};

thread_local ThreadArea t_area;

}  // namespace

LowMemory::LowMemory(std::size_t size) {
  if (size <= kThreadAreaSize) {
    data_ = t_area.Take();
  }
  if (data_ == nullptr) {
    // All pages will be written, so they are allocated at once.
    data_ = Map(size, kFlags | MAP_POPULATE);
    mapped_ = size;
  }
}

LowMemory::~LowMemory() {
  if (data_ == nullptr) {
    return;
  }
  if (mapped_ != 0) {
    munmap(data_, mapped_);
  } else {
    t_area.GiveBack();
  }
}

std::byte* LowMemory::Stage(std::size_t offset, std::byte* data, std::size_t size) const {
  if constexpr (kEveryAddressIsLow) {
    return data;
  }
  if (size != 0) {
    std::memcpy(At(offset), data, size);
  }
  return At(offset);
}

void LowMemory::Unstage(std::size_t offset, std::byte* data, std::size_t size) const {
  if (!kEveryAddressIsLow && size != 0) {
    std::memcpy(data, At(offset), size);
  }
}

std::uint32_t LowMemory::AddressOf(const std::byte* place) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(place));
}

}  // namespace qel
