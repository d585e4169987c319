// The agent's own link with the host, for service messages: over the device, or else over the hypervisor call.
//
// For the main thread only: it opens the link and registers before there are other threads, and unregisters and closes
// the link when they have ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "tools_gate/device.h"
#include "tools_gate/hypervisor_transfer.h"
#include "tools_gate/link_result.h"

namespace qel {

// What is known about the channels, for all links of the process, and how to reach them.
struct TgChannelState {
  static constexpr int kUnknown = -1;  // not yet probed
  static constexpr int kUnusable = 0;  // never tried again
  static constexpr int kUsable = 1;

  int device = kUnknown;
  bool sub_header_in_buffer = true;  // cleared by a device that wants the sub-header inline
  int hypervisor = kUnknown;
  std::uint32_t chunk_size = 0;  // bytes per hypervisor call

  std::function<std::uint32_t(int& descriptor)> open_device = TgOpenDeviceFile;
  HypervisorCall call_hypervisor = CallHypervisor;
};

// The process's own.
TgChannelState& TgProcessChannel();

inline constexpr std::int32_t kTgLinkClosed = -11;          // last status of a closed link
inline constexpr std::uint32_t kTgDeviceLink = 0x3F2E8A05;  // kinds of links
inline constexpr std::uint32_t kTgHypervisorLink = 0x3F2E8A04;

// One link. Whoever has it opened has to close it: the record's end does not.
struct TgLink {
  std::int32_t last_status = kTgLinkClosed;  // what the host said about the last message
  std::uint32_t kind = 0;                    // 0: closed
  int descriptor = 0;                        // of a device link; 0: none
  TgChannelState* channel = &TgProcessChannel();
};

// All of these return a TgLinkResult.

// Opens a closed link: the device first, the hypervisor call second.
int TgLinkOpen(TgLink& link);

// Closes the link. Always kTgSuccess.
int TgLinkClose(TgLink& link);

// Sends `request_length` bytes of `data` as one service message. Up to `reply_capacity` bytes of reply come into the
// same place, which has room for the larger of the two. After a success `reply_length`, when it is not null, holds the
// reply's length in bytes.
int TgLinkSendMessage(TgLink& link, std::byte* data, std::uint32_t request_length, std::uint32_t reply_capacity,
                      std::uint32_t* reply_length = nullptr);

// Announces a service to the host, and takes the announcement back. A null `title` or `session` and an empty `extra`
// are left out. The product's version is sent when one of the flag words is not 0. A null `name` is kTgInvalidArgument
// when registering, and not allowed when unregistering.
int TgRegisterService(TgLink& link, const char* name, const char* title, std::uint32_t flags_a, std::uint32_t flags_b,
                      const char* session, std::span<const std::byte> extra);
int TgUnregisterService(TgLink& link, const char* name);

}  // namespace qel
