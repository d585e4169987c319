// Byte strings, and the little-endian numbers of the gate's formats in them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qel::host {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// The number at `offset`. Bytes beyond the end of `view` count as zero, so no caller can read outside of it.
inline std::uint32_t LoadU32(ByteView view, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4 && offset + i < view.size(); ++i) {
    value |= static_cast<std::uint32_t>(view[offset + i]) << (8 * i);
  }
  return value;
}

inline std::uint16_t LoadU16(ByteView view, std::size_t offset) {
  return static_cast<std::uint16_t>(LoadU32(view, offset) & 0xFFFF);
}

// At most `size` bytes from `offset` on; empty when `offset` is after the end.
inline ByteView Slice(ByteView view, std::size_t offset, std::size_t size = SIZE_MAX) {
  if (offset >= view.size()) return {};
  return view.subspan(offset, std::min(size, view.size() - offset));
}

inline void StoreU32(Bytes& bytes, std::size_t offset, std::uint32_t value) {
  if (bytes.size() < offset + 4) bytes.resize(offset + 4);
  for (std::size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

inline void AppendU32(Bytes& bytes, std::uint32_t value) {
  StoreU32(bytes, bytes.size(), value);
}

inline void AppendBytes(Bytes& bytes, ByteView more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

inline ByteView ViewOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline std::string TextOf(ByteView view) {
  return {view.begin(), view.end()};
}

// Like snprintf(), but returns a string.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

}  // namespace qel::host
