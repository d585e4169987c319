// Composes expected bytes in the wire format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace qel {

// A buffer to which values are appended in little-endian order.
class GateBytes : public std::vector<std::byte> {
 public:
  GateBytes& U16(std::uint32_t value) {
    push_back(static_cast<std::byte>(value & 0xFF));
    push_back(static_cast<std::byte>(value >> 8 & 0xFF));
    return *this;
  }
  GateBytes& U32(std::initializer_list<std::uint32_t> values) {
    for (const std::uint32_t value : values) {
      U16(value).U16(value >> 16);
    }
    return *this;
  }
  GateBytes& Text(std::string_view text) { return Raw(std::as_bytes(std::span(text))); }
  GateBytes& Raw(std::span<const std::byte> bytes) {
    insert(end(), bytes.begin(), bytes.end());
    return *this;
  }
  GateBytes& Zeros(std::size_t count) {
    resize(size() + count);
    return *this;
  }
  // Appends an ASCII text as a UTF-16LE field of 522 bytes.
  GateBytes& Field(std::string_view ascii) {
    for (const char c : ascii) {
      U16(static_cast<unsigned char>(c));
    }
    return Zeros(522 - 2 * ascii.size());
  }
};

inline GateBytes Copied(std::span<const std::byte> bytes) {
  return GateBytes().Raw(bytes);
}

}  // namespace qel
