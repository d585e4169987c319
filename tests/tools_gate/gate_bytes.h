// Expected bytes, written as the wire format has them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace qel {

// Appends values to a vector of bytes, little-endian.
class GateBytes {
 public:
  GateBytes& U16(unsigned value) { return Number(value, 2); }
  GateBytes& U32(const std::vector<std::uint32_t>& values) {
    for (const std::uint32_t value : values) {
      Number(value, 4);
    }
    return *this;
  }
  GateBytes& Text(std::string_view text) { return Raw(std::as_bytes(std::span(text))); }
  GateBytes& Raw(std::span<const std::byte> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  GateBytes& Zeros(std::size_t count) {
    bytes_.resize(bytes_.size() + count);
    return *this;
  }
  // A fixed UTF-16LE field of 522 bytes with an ASCII text.
  GateBytes& Field(std::string_view ascii) {
    for (const char c : ascii) {
      U16(static_cast<unsigned char>(c));
    }
    return Zeros(522 - 2 * ascii.size());
  }

  operator const std::vector<std::byte>&() const { return bytes_; }
  const std::vector<std::byte>& Get() const { return bytes_; }

 private:
  GateBytes& Number(std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i) {
      bytes_.push_back(static_cast<std::byte>((value >> (8 * i)) & 0xFF));
    }
    return *this;
  }

  std::vector<std::byte> bytes_;
};

inline std::vector<std::byte> Copied(std::span<const std::byte> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace qel
