// What a hypervisor can do wrong. The samples of the fuzz target "hypervisor_transfer" check whole messages and
// replies, and a session test makes the real call.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "gate_bytes.h"
#include "tools_gate/hypervisor_transfer.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

using std::chrono::steady_clock;

TEST(HypervisorTest, WorksWithoutAHypervisor) {
  const auto mine = [](int) {};
  const auto before = std::signal(SIGSEGV, mine);
  HypervisorRegisters registers;
  EXPECT_FALSE(CallHypervisor(registers) || CallHypervisor(registers));
  EXPECT_EQ(std::signal(SIGSEGV, before), mine) << "the call has not restored the process's own handler";
  std::uint32_t chunk_size = 0;
  const HypervisorCall takes_nothing = [](HypervisorRegisters& answer) {
    answer = {.eax = 0x0B36AF47, .ebx = 2};
    return true;
  };
  EXPECT_EQ(ProbeHypervisor(takes_nothing, chunk_size), kTgChannelFailure);
}

// Impossible answers. The buffers have exactly the needed sizes, so that the sanitizer reports each access outside.
// An endless transfer is cancelled when the service stops.
TEST(HypervisorTest, ImpossibleAnswersAreRejected) {
  constexpr std::uint32_t kAll = 0xFFFFFFFF;
  const struct {
    const char* name;
    std::uint32_t capacity;
    HypervisorRegisters answer;
    int expected;
    int calls = 0;  // including the call that cancels; 0: any number
  } cases[] = {
      {"more than the room offered", 100, {.edx = 17, .esi = 100, .edi = 2}, kTgChannelFailure, 2},
      {"4 GiB delivered", 8, {.edx = kAll, .esi = 8}, kTgChannelFailure, 1},
      {"4 GiB announced", 8, {.edx = 0, .esi = kAll, .edi = 2}, kTgReplyTooLarge, 2},
      {"never ending large reply", 100, {.edx = 16, .esi = 100, .edi = 2}, kTgChannelFailure, 8},
      {"failed", 8, {.edx = kAll, .esi = kAll, .edi = kAll}, kTgServiceFailed, 1},
      {"never ending", 0, {.edi = 1}, kTgChannelFailure},
  };
  TgLimitResubmission();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    int calls = 0;
    std::uint32_t last_call = 0;
    const auto start = steady_clock::now();
    const HypervisorCall call = [&](HypervisorRegisters& registers) {
      ++calls;
      last_call = registers.eax;
      registers = c.answer;
      return steady_clock::now() - start < std::chrono::seconds(4);
    };
    std::vector<std::byte> data(std::max(c.capacity, 8U));
    HypervisorMessage message{.data = data.data(), .request_length = 8, .reply_capacity = c.capacity};
    EXPECT_EQ(SendOverHypervisor(call, 16, message), c.expected);
    EXPECT_EQ(calls, c.calls == 0 ? calls : c.calls);
    EXPECT_EQ(last_call == 0x05F9E655, c.calls != 1);
    EXPECT_EQ(message.state, static_cast<std::int32_t>(c.answer.edi));
    EXPECT_LE(message.reply_length, c.capacity);
  }
  TgLiftResubmissionLimits();
}

}  // namespace
}  // namespace qel
