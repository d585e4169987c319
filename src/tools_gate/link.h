// The link to the host for service messages. It uses the device, or else the hypervisor call.
//
// Only the main thread uses it: it opens the link and registers before other threads exist, and unregisters and closes
// the link after they have ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "tools_gate/device.h"
#include "tools_gate/hypervisor_transfer.h"
#include "tools_gate/link_result.h"

namespace qel {

// What is known about the two channels, and the functions that access them. Shared by all links of the process.
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

// The one of this process.
TgChannelState& TgProcessChannel();

inline constexpr std::int32_t kTgLinkClosed = -11;          // last status of a closed link
inline constexpr std::uint32_t kTgDeviceLink = 0x3F2E8A05;  // kinds of links
inline constexpr std::uint32_t kTgHypervisorLink = 0x3F2E8A04;

// One link. An open link must be closed with TgLinkClose(); there is no destructor that does it.
struct TgLink {
  std::int32_t last_status = kTgLinkClosed;  // the host's result of the last message
  std::uint32_t kind = 0;                    // 0: closed
  int descriptor = 0;                        // of a device link; 0: none
  TgChannelState* channel = &TgProcessChannel();
};

// All functions below return a TgLinkResult.

// Opens a closed link. Tries the device first, then the hypervisor call.
int TgLinkOpen(TgLink& link);

// Closes the link. Always kTgSuccess.
int TgLinkClose(TgLink& link);

// Sends the first `request_length` bytes of `data` as one service message. The reply, of at most `reply_capacity`
// bytes, replaces them in `data`, which must be as long as the larger of both. On success stores the length of the
// reply in bytes in `reply_length`, unless that is null.
int TgLinkSendMessage(TgLink& link, std::byte* data, std::uint32_t request_length, std::uint32_t reply_capacity,
                      std::uint32_t* reply_length = nullptr);

// Registers a service with the host, and unregisters it. A null `title` or `session` and an empty `extra` are left out.
// The product version is sent when one of the flag words is not 0. TgRegisterService() returns kTgInvalidArgument for a
// null `name`; TgUnregisterService() must not be called with one.
int TgRegisterService(TgLink& link, const char* name, const char* title, std::uint32_t flags_a, std::uint32_t flags_b,
                      const char* session, std::span<const std::byte> extra);
int TgUnregisterService(TgLink& link, const char* name);

}  // namespace qel
