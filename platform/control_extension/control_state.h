// The answers of the extension, and counters of its requests.
#pragma once

#include <atomic>
#include <cstdint>

namespace qel::control_extension {

// Any thread may read and write the members.
struct ControlState {
  std::atomic<bool> console_active{true};
  std::atomic<bool> grant{true};
  std::atomic<unsigned> console_questions{0};
  std::atomic<unsigned> claims{0};
  std::atomic<std::uint32_t> last_user{0};  // the user id of the last claim
};

}  // namespace qel::control_extension
