// An icon to be sent to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel {

// With `argb` true: width x height pixels, 32-bit ARGB values in little-endian order. With `argb` false: the content of
// an image file; height is 1 and width the number of bytes. A new object is empty.
struct IconImage {
  std::vector<std::byte> bytes;
  std::uint32_t height = 0;
  std::uint32_t width = 0;
  bool argb = true;

  bool IsEmpty() const { return bytes.empty(); }
};

}  // namespace qel
