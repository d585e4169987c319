// Memory that the host can address: it is told addresses of 32 bits, and most of a 64-bit program lies above those.
//
// A LowMemory is the working area of one call: the sender's buffers are staged in it, the call is made, and what the
// host wrote is copied back. Where every address has 32 bits nothing is staged: the same functions hand out the
// sender's own buffers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

inline constexpr bool kEveryAddressIsLow = sizeof(void*) <= sizeof(std::uint32_t);

// An area small enough is the thread's own, kept until the thread ends; a larger one, or a second one on the same
// thread, is mapped anew and given back to the system at once.
class LowMemory {
 public:
  explicit LowMemory(std::size_t size);
  ~LowMemory();
  LowMemory(const LowMemory&) = delete;
  LowMemory& operator=(const LowMemory&) = delete;

  // False when no such memory could be had; nothing else may be called then.
  explicit operator bool() const { return data_ != nullptr; }

  // The area's bytes; they hold anything.
  std::byte* At(std::size_t offset) const { return data_ + offset; }

  // What an area has to hold for a staged buffer of `size` bytes.
  static constexpr std::size_t RoomFor(std::size_t size) {
    constexpr std::size_t kAlignment = 16;
    return kEveryAddressIsLow ? 0 : (size + kAlignment - 1) / kAlignment * kAlignment;
  }

  // Copies `size` bytes to `offset` and returns where the host finds them.
  std::byte* Stage(std::size_t offset, std::byte* data, std::size_t size) const;

  // Copies the bytes staged at `offset` back to where they came from.
  void Unstage(std::size_t offset, std::byte* data, std::size_t size) const;

  // The address of a byte of an area, or of staged bytes, as the host is told it.
  static std::uint32_t AddressOf(const std::byte* place);

 private:
  std::byte* data_ = nullptr;
  std::size_t mapped_ = 0;  // bytes to unmap; 0 for the thread's own area
};

}  // namespace qel
