// The command line.
#pragma once

#include <cstdint>

namespace qel {

inline constexpr std::int32_t kMinPollPeriodMs = 100;
inline constexpr std::int32_t kMaxPollPeriodMs = 1000;
inline constexpr std::int32_t kDefaultPollPeriodMs = 500;

struct Options {
  std::int32_t poll_period_ms = kDefaultPollPeriodMs;
  bool help = false;  // the usage text was printed; the process has nothing more to do
};

// Parses and applies the options in the given order; a log level takes effect at once. Unknown options and values out
// of range are ignored. After "-h" the remaining options are not read.
Options ParseCommandLine(int argc, char** argv);

}  // namespace qel
