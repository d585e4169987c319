// Composes the bytes of messages.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/bytes.h"

namespace qel::host::test {

inline Bytes Words(std::initializer_list<std::uint32_t> words) {
  Bytes bytes;
  for (const std::uint32_t word : words) AppendU32(bytes, word);
  return bytes;
}

inline Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes bytes;
  for (const Bytes& part : parts) AppendBytes(bytes, part);
  return bytes;
}

// ASCII text as UTF-16LE in a fixed field.
inline Bytes Text16(const std::string& text) {
  Bytes bytes(522);
  for (std::size_t i = 0; i < text.size() && i < 261; ++i) bytes[2 * i] = static_cast<std::uint8_t>(text[i]);
  return bytes;
}

inline Bytes TextBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// A message buffer with these fields and without a prefix.
inline Bytes FieldBuffer(const std::vector<std::pair<std::uint32_t, Bytes>>& fields) {
  Bytes body;
  std::uint32_t index = 0;
  for (const auto& [tag, data] : fields) {
    AppendBytes(body, Join({Words({static_cast<std::uint32_t>(data.size()), tag, index++}), data}));
  }
  return Join({Words({static_cast<std::uint32_t>(body.size()), 0x1000, 0}), body});
}

}  // namespace qel::host::test
