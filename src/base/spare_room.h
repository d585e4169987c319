// Hash tables keep the buckets of their largest time. These functions give them back, so that one moment with a million
// entries does not cost memory for the rest of the day.
#pragma once

#include <cstddef>

namespace qel {

// Returns false when the table is small, or filled well enough. The buckets that are left hold the entries.
template <typename Table>
bool GiveBackSpareRoom(Table& table) {
  constexpr std::size_t kKeptBuckets = 4096;
  if (table.bucket_count() <= kKeptBuckets + 4 * table.size()) {
    return false;
  }
  table.rehash(0);
  return true;
}

}  // namespace qel
