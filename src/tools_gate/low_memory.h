// Memory that the host can address. Addresses are passed to the host as 32-bit numbers, but most memory of a 64-bit
// program lies above 4 GiB.
//
// A LowMemory is the working area of one call: the sender's buffers are copied into it ("staged"), the call is made,
// and the bytes that the host wrote are copied back. In a 32-bit program nothing is copied: the same functions return
// the sender's own buffers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

inline constexpr bool kEveryAddressIsLow = sizeof(void*) <= sizeof(std::uint32_t);

// Owns the area until its destructor. Up to 64 KiB it uses an area that the thread keeps until the thread ends. A
// larger area, or a second one at the same time, is mapped for this object only. Only the thread that created the
// object may use it. Sizes and offsets are in bytes.
class LowMemory {
 public:
  explicit LowMemory(std::size_t size);
  ~LowMemory();
  LowMemory(const LowMemory&) = delete;
  LowMemory& operator=(const LowMemory&) = delete;

  // False when no memory could be mapped; then no other function may be called.
  explicit operator bool() const { return data_ != nullptr; }

  // The bytes of the area; they are not initialised.
  std::byte* At(std::size_t offset) const { return data_ + offset; }

  // How many bytes of an area a staged buffer of `size` bytes needs.
  static constexpr std::size_t RoomFor(std::size_t size) {
    constexpr std::size_t kAlignment = 16;
    return kEveryAddressIsLow ? 0 : (size + kAlignment - 1) / kAlignment * kAlignment;
  }

  // Copies `size` bytes to `offset`. Returns the place from which the host must read them.
  std::byte* Stage(std::size_t offset, std::byte* data, std::size_t size) const;

  // Copies the first `size` bytes staged at `offset` back to `data`.
  void Unstage(std::size_t offset, std::byte* data, std::size_t size) const;

  // The address to pass to the host for a byte of an area, or for a result of Stage().
  static std::uint32_t AddressOf(const std::byte* place);

 private:
  std::byte* data_ = nullptr;
  std::size_t mapped_ = 0;  // bytes to unmap; 0 for the thread's own area
};

}  // namespace qel
