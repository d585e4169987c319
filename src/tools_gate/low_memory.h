// Memory that the host can address. The host is told 32-bit addresses, and most of a 64-bit program lies above them.
//
// A LowMemory is the working area of one call: the sender's buffers are copied into it ("staged"), the call is made,
// and what the host wrote is copied back. In a 32-bit program nothing has to be copied: the same functions hand out the
// sender's own buffers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

inline constexpr bool kEveryAddressIsLow = sizeof(void*) <= sizeof(std::uint32_t);

// Owns the area until it ends. A small area is the thread's own, which is kept until the thread ends. A large one, or a
// second one at the same time, is mapped for this object only. To be used by the thread that made it. Sizes and offsets
// are in bytes.
class LowMemory {
 public:
  explicit LowMemory(std::size_t size);
  ~LowMemory();
  LowMemory(const LowMemory&) = delete;
  LowMemory& operator=(const LowMemory&) = delete;

  // False when there is no such memory. All other functions need true.
  explicit operator bool() const { return data_ != nullptr; }

  // The area's bytes; they are not set to anything.
  std::byte* At(std::size_t offset) const { return data_ + offset; }

  // The room that a staged buffer of `size` bytes takes in an area.
  static constexpr std::size_t RoomFor(std::size_t size) {
    constexpr std::size_t kAlignment = 16;
    return kEveryAddressIsLow ? 0 : (size + kAlignment - 1) / kAlignment * kAlignment;
  }

  // Copies `size` bytes to `offset` and returns where the host finds them.
  std::byte* Stage(std::size_t offset, std::byte* data, std::size_t size) const;

  // Copies the bytes staged at `offset` back to where they came from.
  void Unstage(std::size_t offset, std::byte* data, std::size_t size) const;

  // The address of a byte of an area, or of what Stage() returned, as it is told to the host.
  static std::uint32_t AddressOf(const std::byte* place);

 private:
  std::byte* data_ = nullptr;
  std::size_t mapped_ = 0;  // bytes to unmap; 0 for the thread's own area
};

}  // namespace qel
