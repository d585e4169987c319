// Takes values from the bytes of a fuzzer's input, and ends the program when a property does not hold.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

namespace qel::fuzz {

// Ends the program unless the property holds, so that the fuzzer keeps the input.
inline void Expect(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "not true: %s\n", property);
    std::abort();
  }
}

// What a C function sees of the text.
inline std::string UpToZero(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

// What stands between blanks and tabs.
inline std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c != ' ' && c != '\t') {
      words.back() += c;
    } else if (!words.back().empty()) {
      words.emplace_back();
    }
  }
  if (words.back().empty()) {
    words.pop_back();
  }
  return words;
}

// Reads the input from its beginning. After its end all numbers are 0 and all texts are empty.
class FuzzedData {
 public:
  FuzzedData(const std::uint8_t* data, std::size_t size) : left_(data, size) {}

  bool IsEmpty() const { return left_.empty(); }

  // The next bytes: fewer than `size` at the end of the input.
  std::span<const std::uint8_t> Bytes(std::size_t size) {
    const auto taken = left_.first(std::min(size, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }

  std::uint8_t Byte() { return static_cast<std::uint8_t>(Number(1)); }
  bool Flag() { return (Byte() & 1) != 0; }

  // An unsigned number of `size` bytes, at most 4.
  std::uint32_t Number(std::size_t size = 4) {
    std::uint32_t number = 0;
    unsigned shift = 0;
    for (const std::uint8_t byte : Bytes(size)) {
      number |= std::uint32_t{byte} << shift;
      shift += 8;
    }
    return number;
  }

  // The text up to the next `end`, which is taken too and not returned.
  std::string Text(char end) {
    const auto found = std::find(left_.begin(), left_.end(), static_cast<std::uint8_t>(end));
    const auto text = Bytes(static_cast<std::size_t>(found - left_.begin()));
    Bytes(1);
    return {text.begin(), text.end()};
  }

  std::string Rest() {
    const auto rest = Bytes(left_.size());
    return {rest.begin(), rest.end()};
  }

 private:
  std::span<const std::uint8_t> left_;
};

}  // namespace qel::fuzz
