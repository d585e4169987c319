// Reads images in the XPM format, which browsers do not show.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "host/bytes.h"

namespace qel::host {

struct Pixels {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  Bytes bytes;  // little-endian ARGB words, row by row
};

// Reads an XPM file (version 3), which may hold anything. Only the commonest names of colours are known; others become
// grey. Returns std::nullopt if the file is damaged, or larger than an icon.
std::optional<Pixels> ReadXpm(std::string_view file);

}  // namespace qel::host
