// Reads and writes integers in the format of the Tools Gate: little-endian, without alignment.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

inline void StoreU16(std::byte* to, std::uint16_t value) {
  to[0] = static_cast<std::byte>(value & 0xFF);
  to[1] = static_cast<std::byte>(value >> 8);
}

inline void StoreU32(std::byte* to, std::uint32_t value) {
  to[0] = static_cast<std::byte>(value & 0xFF);
  to[1] = static_cast<std::byte>((value >> 8) & 0xFF);
  to[2] = static_cast<std::byte>((value >> 16) & 0xFF);
  to[3] = static_cast<std::byte>(value >> 24);
}

inline std::uint16_t LoadU16(const std::byte* from) {
  return static_cast<std::uint16_t>(std::to_integer<unsigned>(from[0]) | (std::to_integer<unsigned>(from[1]) << 8));
}

inline std::uint32_t LoadU32(const std::byte* from) {
  return std::to_integer<std::uint32_t>(from[0]) | (std::to_integer<std::uint32_t>(from[1]) << 8) |
         (std::to_integer<std::uint32_t>(from[2]) << 16) | (std::to_integer<std::uint32_t>(from[3]) << 24);
}

}  // namespace qel
