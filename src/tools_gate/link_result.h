// Result codes of the link's functions.
#pragma once

namespace qel {

enum TgLinkResult : int {
  kTgSuccess = 0,
  kTgInvalidArgument = -1,  // no service name
  kTgNoMemory = -2,         // while composing a message
  kTgFieldNotAdded = -3,    // a field could not be added to the message
  kTgNotDelivered = -4,     // the message could not be sent
  kTgChannelFailure = -5,   // the device cannot be opened, a write failed, or the hypervisor call faulted
  kTgRejected = -6,         // the device rejects messages, or the hypervisor has another protocol version
  kTgReplyTooLarge = -7,    // larger than the capacity given
  kTgServiceFailed = -8,    // the host's result is negative
  kTgNotOpen = -9,          // the link is not open
  kTgNoDescriptor = -10,    // the link has none
};

}  // namespace qel
