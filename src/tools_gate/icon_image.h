// One icon on its way to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel {

// Either pixels (argb set: width x height 32-bit ARGB values, each stored little-endian) or a whole image file as it
// lay on disk (argb clear: height 1, width the number of bytes). A fresh record is empty.
struct IconImage {
  std::vector<std::byte> bytes;
  std::uint32_t height = 0;
  std::uint32_t width = 0;
  bool argb = true;

  bool IsEmpty() const { return bytes.empty(); }
};

}  // namespace qel
