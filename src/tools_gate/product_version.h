// The product's version, as the log and the host see it.
#pragma once

#include <cstdint>

namespace qel {

inline constexpr std::uint32_t kProductMajor = 1;
inline constexpr std::uint32_t kProductMinor = 0;
inline constexpr std::uint32_t kProductPatch = 0;
inline constexpr std::uint32_t kProductBuild = 1;
inline constexpr std::uint32_t kProductIdentification = 9;  // which product speaks

static_assert(kProductMajor < 10 && kProductMinor < 10 && kProductPatch < 10, "the text has one digit for each");
inline constexpr char kProductVersion[] = {'0' + kProductMajor, '.', '0' + kProductMinor, '.', '0' + kProductPatch, 0};

}  // namespace qel
