// Finding the lines of a key file that matter, without looking at each line.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel {

constexpr std::size_t kMarkBlock = 64;

// A mark is a "=" that does not follow a "]", or a "[" that follows white space or a control character. Every group's
// header and every key without a locale has one; the translations, most of a desktop file, have none unless their text
// does.
//
// Looks at one block of kMarkBlock bytes after the other. Returns the first one that begins before `end` and has marks,
// and which of its bytes they are, lowest bit first; `end` or a position behind it when there is none. The byte before
// `begin` and kMarkBlock bytes from `end` on must be readable.
using MarkFinder = const char* (*)(const char* begin, const char* end, std::uint64_t& marks);

// All that this processor can run, the fastest first. They find the same.
std::vector<MarkFinder> MarkFinders();

// Calls `use` with the position of each mark in [begin, end), in order. `use` returns from where on it wants more.
template <typename Use>
void ForEachMark(const char* begin, const char* end, Use use) {
  static const MarkFinder find = MarkFinders().front();
  const char* resume = begin;
  std::uint64_t marks = 0;
  for (const char* block = begin; (block = find(block, end, marks)) < end; block += kMarkBlock) {
    for (; marks != 0; marks &= marks - 1) {
      const char* const mark = block + std::countr_zero(marks);
      if (mark >= resume && mark < end) {
        resume = use(mark);
      }
    }
  }
}

}  // namespace qel
