// Messages over the hypervisor call: they travel in pieces of at most a chunk, and so does the reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools_gate/hypervisor_call.h"
#include "tools_gate/link_result.h"

namespace qel {

// How a call is made: CallHypervisor(), or a test's own.
using HypervisorCall = std::function<bool(HypervisorRegisters&)>;

// Asks whether there is a hypervisor with this channel. kTgSuccess with the chunk size in bytes (never 0),
// kTgChannelFailure when there is none, or kTgRejected when it speaks another version.
int ProbeHypervisor(const HypervisorCall& call, std::uint32_t& chunk_size);

// One message and its reply, in one buffer.
struct HypervisorMessage {
  std::byte* data = nullptr;         // room for the larger of the two
  std::uint32_t request_length = 0;  // bytes to send
  std::uint32_t reply_capacity = 0;  // bytes the reply may have
  // What came of it:
  std::uint32_t reply_length = 0;
  std::int32_t state = 0;  // of the transfer, as the hypervisor reported it last: 0 finished, negative failed
};

// Calls until the hypervisor reports the transfer finished, or for as long as it may take over it (resubmission.h).
// kTgSuccess, kTgChannelFailure (a call faulted, its answer cannot be true, or it was given up), kTgReplyTooLarge or
// kTgServiceFailed.
int SendOverHypervisor(const HypervisorCall& call, std::uint32_t chunk_size, HypervisorMessage& message);

}  // namespace qel
