// Sends messages over the hypervisor call. A message and its reply are sent in pieces of at most one chunk. Only one
// thread at a time may use it, because of the call itself (hypervisor_call.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools_gate/hypervisor_call.h"
#include "tools_gate/link_result.h"

namespace qel {

// Makes a call: CallHypervisor(), or a function of a test.
using HypervisorCall = std::function<bool(HypervisorRegisters&)>;

// Asks whether there is a hypervisor with this channel. Returns kTgSuccess and stores the chunk size in bytes (never
// 0). Returns kTgChannelFailure when there is none, or kTgRejected when it has another protocol version; then
// `chunk_size` is unchanged.
int ProbeHypervisor(const HypervisorCall& call, std::uint32_t& chunk_size);

// One message and its reply, which share a buffer of the caller. Lengths are in bytes.
struct HypervisorMessage {
  std::byte* data = nullptr;         // the buffer, as long as the larger of message and reply
  std::uint32_t request_length = 0;  // length of the message
  std::uint32_t reply_capacity = 0;  // maximum length of the reply
  // Set by SendOverHypervisor():
  std::uint32_t reply_length = 0;
  std::int32_t state = 0;  // state of the transfer in the hypervisor's last answer: 0 finished, negative failed
};

// Makes calls until the hypervisor reports that the transfer is finished, or until TgResubmission allows no more.
// Returns kTgSuccess; kTgChannelFailure when there is not enough memory, a call caused a fault, an answer is impossible
// or the transfer was given up; kTgReplyTooLarge when the reply does not fit; or kTgServiceFailed when the hypervisor
// reports a failure.
int SendOverHypervisor(const HypervisorCall& call, std::uint32_t chunk_size, HypervisorMessage& message);

}  // namespace qel
