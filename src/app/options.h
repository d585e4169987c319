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

// Applies the options in the order given: the log level takes effect at once. What cannot be used is ignored.
Options ParseCommandLine(int argc, char** argv);

}  // namespace qel
