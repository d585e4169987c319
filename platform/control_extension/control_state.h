// What the extension answers, and what it was asked.
#pragma once

#include <atomic>
#include <cstdint>

namespace qel::control_extension {

// Written and read by any thread.
struct ControlState {
  std::atomic<bool> console_active{true};
  std::atomic<bool> grant{true};
  std::atomic<unsigned> console_questions{0};
  std::atomic<unsigned> claims{0};
  std::atomic<std::uint32_t> last_user{0};  // who claimed the session last
};

}  // namespace qel::control_extension
