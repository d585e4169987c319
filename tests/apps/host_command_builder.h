// Host commands as a host builds them, byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace qel::test {

using Bytes = std::vector<std::byte>;

struct Field {
  std::uint32_t tag;
  Bytes data;
};

inline Bytes Words(const std::vector<std::uint32_t>& values) {
  Bytes bytes;
  for (const std::uint32_t value : values) {
    for (int shift = 0; shift < 32; shift += 8) {
      bytes.push_back(static_cast<std::byte>(value >> shift));
    }
  }
  return bytes;
}

inline Bytes Text(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

// A fixed UTF-16LE text field, for ASCII texts.
inline Bytes WideText(std::string_view text) {
  Bytes bytes(522);
  for (std::size_t i = 0; i < text.size(); ++i) {
    bytes.at(2 * i) = static_cast<std::byte>(text[i]);
  }
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes FieldBuffer(const std::vector<Field>& fields) {
  Bytes body;
  for (std::uint32_t index = 0; index < fields.size(); ++index) {
    const Field& field = fields[index];
    body = body + Words({static_cast<std::uint32_t>(field.data.size()), field.tag, index}) + field.data;
  }
  return Words({static_cast<std::uint32_t>(body.size()), 0x1000, 0}) + body;
}

inline Bytes Command(std::uint32_t code, const Bytes& payload = {}, std::uint32_t flags = 0) {
  return Words({code, 2, 0, flags, static_cast<std::uint32_t>(payload.size())}) + payload;
}

// Hide and activate commands: one process id, and fields at the offset named behind it.
inline Bytes AppsCommand(std::uint32_t code, std::uint32_t pid, const std::vector<Field>& fields,
                         std::uint32_t offset = 36) {
  return Command(code, Words({pid, 0, 0, offset}) + FieldBuffer(fields));
}

inline Bytes StartFixed(std::string_view app, std::string_view document) {
  return Command(106, WideText(app) + WideText(document));
}

inline Bytes StartMarked(const std::vector<Field>& fields) {
  return Command(106, Words({0xFFFFFFFF}) + FieldBuffer(fields));
}

inline Bytes StartLong(std::string_view ignored_app, const std::vector<Field>& fields) {
  return Command(106, WideText(ignored_app) + Bytes(522) + FieldBuffer(fields));
}

}  // namespace qel::test
