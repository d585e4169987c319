// Messages over the hypervisor call. A message and its reply travel in pieces; a piece is at most one chunk long.
// For one thread at a time, since the call is (hypervisor_call.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools_gate/hypervisor_call.h"
#include "tools_gate/link_result.h"

namespace qel {

// How a call is made: CallHypervisor(), or a test's own.
using HypervisorCall = std::function<bool(HypervisorRegisters&)>;

// Asks whether there is a hypervisor with this channel. Returns kTgSuccess and the chunk size in bytes (never 0),
// kTgChannelFailure when there is none, kTgRejected when it speaks another version. A failure does not touch
// `chunk_size`.
int ProbeHypervisor(const HypervisorCall& call, std::uint32_t& chunk_size);

// One message and its reply, in one buffer of the caller's. Lengths are in bytes.
struct HypervisorMessage {
  std::byte* data = nullptr;         // room for the larger of message and reply
  std::uint32_t request_length = 0;  // of the message
  std::uint32_t reply_capacity = 0;  // what the reply may have
  // Set by SendOverHypervisor():
  std::uint32_t reply_length = 0;
  std::int32_t state = 0;  // of the transfer, as last reported by the hypervisor: 0 finished, negative failed
};

// Makes calls until the hypervisor reports that the transfer is finished, as long as TgResubmission allows. Returns
// kTgSuccess; kTgChannelFailure when there is no memory for it, a call faulted, an answer cannot be true or the
// transfer was given up; kTgReplyTooLarge; or kTgServiceFailed.
int SendOverHypervisor(const HypervisorCall& call, std::uint32_t chunk_size, HypervisorMessage& message);

}  // namespace qel
