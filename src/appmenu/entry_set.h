// Sets of desktop entries. An entry is identified by its number in the registry.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel {

using EntryNumber = std::uint32_t;

// One bit per entry. Sets may have different lengths; a set does not contain numbers beyond its length.
class EntrySet {
 public:
  bool Contains(EntryNumber number) const {
    return number / 64 < words_.size() && (words_[number / 64] >> (number % 64) & 1) != 0;
  }

  void Insert(EntryNumber number) {
    Grow(number / 64 + 1);
    words_[number / 64] |= std::uint64_t{1} << (number % 64);
  }

  EntrySet& operator|=(const EntrySet& other) {
    Grow(other.words_.size());
    for (std::size_t i = 0; i < other.words_.size(); ++i) {
      words_[i] |= other.words_[i];
    }
    return *this;
  }

  EntrySet& operator&=(const EntrySet& other) {
    if (words_.size() > other.words_.size()) {
      words_.resize(other.words_.size());
    }
    for (std::size_t i = 0; i < words_.size(); ++i) {
      words_[i] &= other.words_[i];
    }
    return *this;
  }

  EntrySet& operator-=(const EntrySet& other) {
    for (std::size_t i = 0; i < words_.size() && i < other.words_.size(); ++i) {
      words_[i] &= ~other.words_[i];
    }
    return *this;
  }

  bool IsEmpty() const {
    return std::ranges::all_of(words_, [](std::uint64_t word) { return word == 0; });
  }

  std::size_t Count() const {
    std::size_t count = 0;
    for (const std::uint64_t word : words_) {
      count += static_cast<std::size_t>(std::popcount(word));
    }
    return count;
  }

  // Calls `use` with each number, lowest first.
  template <typename Use>
  void ForEach(Use use) const {
    for (std::size_t i = 0; i < words_.size(); ++i) {
      for (std::uint64_t word = words_[i]; word != 0; word &= word - 1) {
        use(static_cast<EntryNumber>(i * 64 + static_cast<std::size_t>(std::countr_zero(word))));
      }
    }
  }

 private:
  void Grow(std::size_t words) {
    if (words_.size() < words) {
      words_.reserve((words + 7) / 8 * 8);  // numbers are mostly inserted in ascending order
      words_.resize(words);
    }
  }

  std::vector<std::uint64_t> words_;
};

}  // namespace qel
