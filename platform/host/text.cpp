#include "host/text.h"

namespace qel::host {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& text, char32_t c) {
  const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
  if (c < 0x80) {
    put(c);
  } else if (c < 0x800) {
    put(0xC0 | (c >> 6));
    put(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    put(0xE0 | (c >> 12));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  } else {
    put(0xF0 | (c >> 18));
    put(0x80 | ((c >> 12) & 0x3F));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  }
}

bool IsHigh(char32_t unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool IsLow(char32_t unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

// Removes the first character of `text` and returns it; U+FFFD for a byte that begins no valid character.
char32_t TakeUtf8(std::string_view& text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t size = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  char32_t c = size == 1 ? first : static_cast<char32_t>(first & (0x7F >> size));
  bool good = first < 0x80 || (first >= 0xC2 && first < 0xF5);
  for (std::size_t i = 1; good && i < size; ++i) {
    const auto next = i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    good = (next & 0xC0) == 0x80;
    c = (c << 6) | (next & 0x3F);
  }
  good = good && c >= kSmallest[size] && c <= 0x10FFFF && !IsHigh(c) && !IsLow(c);
  text.remove_prefix(good ? size : 1);
  return good ? c : kReplacement;
}

Bytes EncodeUtf16(std::string_view text, std::size_t limit) {
  Bytes bytes;
  const auto put = [&bytes](char32_t unit) {
    bytes.push_back(static_cast<std::uint8_t>(unit & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
  };
  while (!text.empty()) {
    const char32_t c = TakeUtf8(text);
    if (bytes.size() + (c >= 0x10000 ? 4 : 2) > limit) break;
    if (c >= 0x10000) {
      put(0xD800 + ((c - 0x10000) >> 10));
      put(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
      put(c);
    }
  }
  return bytes;
}

}  // namespace

std::string DecodeTextField(ByteView field, std::string& problem) {
  problem.clear();
  std::string text;
  std::size_t position = 0;
  for (; position + 1 < field.size(); position += 2) {
    char32_t c = LoadU16(field, position);
    if (c == 0) break;
    if (IsHigh(c) && position + 3 < field.size() && IsLow(LoadU16(field, position + 2))) {
      c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(LoadU16(field, position + 2)) - 0xDC00);
      position += 2;
    } else if (IsHigh(c) || IsLow(c)) {
      if (problem.empty())
        problem = Format("unpaired surrogate 0x%04x at byte %zu", static_cast<unsigned>(c), position);
      c = kReplacement;
    }
    AppendUtf8(text, c);
  }
  for (std::size_t i = position; i < field.size() && problem.empty(); ++i) {
    if (field[i] != 0) problem = Format("byte 0x%02x at %zu behind the end of the text", field[i], i);
  }
  return text;
}

Bytes EncodeTextField(std::string_view text, std::size_t size) {
  Bytes bytes = EncodeUtf16(text, size);
  bytes.resize(size);
  return bytes;
}

std::size_t EncodedTextSize(std::string_view text) {
  return EncodeUtf16(text, SIZE_MAX).size();
}

}  // namespace qel::host
