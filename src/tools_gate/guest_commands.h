// The guest commands: the messages in which the agent tells the host which applications run in the guest.
//
// Each message is one block (a 20-byte header and a body) in a Tools Gate request with code 0x8302. It is sent once. An
// error is logged here and not reported to the caller (except by GuestCmdSend()). All texts are in the character set of
// the locale. Arguments are not kept after the call. Any thread may call these functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools_gate/device.h"
#include "tools_gate/icon_image.h"

namespace qel {

inline constexpr std::size_t kGuestCommandHeaderSize = 20;
inline constexpr std::uint32_t kGuestCommandVersion = 2;
inline constexpr std::size_t kTextFieldSize = 522;  // bytes of a fixed UTF-16LE text field

// One application of the applications menu. The caller owns the texts and the icon bytes.
struct AppMenuItem {
  std::string_view path;            // of the desktop file
  std::string_view name;            // shown to the user
  std::string_view location;        // path of its submenu below the top menu; empty for the top menu
  std::uint32_t modified = 0;       // of the desktop file, seconds since the epoch; 0 when unknown
  std::span<const std::byte> icon;  // the icon file's bytes; empty when there is none
};

class GuestCommands {
 public:
  // Submits a request. Returns true when the host has processed it (its answer is in `status`).
  using Submit = std::function<bool(TgRequest&)>;

  explicit GuestCommands(Submit submit = TgDeviceHandleSubmit) : submit_(std::move(submit)) {}

  // Sends a command block. The host writes its reply into `reply`, which the caller has filled with zeros. Returns true
  // when the host accepted the command (status 0). Returns false, and logs nothing, in all other cases, also when a
  // size does not fit into 32 bits.
  bool GuestCmdSend(std::span<const std::byte> block, std::span<std::byte> reply) const;

  // The agent starts (true) or stops (false) to send notifications.
  void GuestCmdToolState(bool active) const;

  // A window of an application has appeared. `window` is the id of its top-level window. `small` is empty or has 16 x
  // 16 ARGB pixels.
  void GuestCmdAddRun(std::uint32_t window, std::int32_t pid, const std::string& name, const std::string& path,
                      const std::string& title, const IconImage& large, const IconImage& small) const;

  // A window has disappeared.
  void GuestCmdRmvRun(std::int32_t pid, std::uint32_t window) const;

  // A started program has ended before it showed a window.
  void GuestCmdRmvRunByPath(std::int32_t pid, const std::string& path) const;

  void GuestCmdWindowTitle(std::uint32_t window, std::int32_t pid, const std::string& title) const;
  void GuestCmdUpdateAppIcon(std::uint32_t window, std::int32_t pid, const IconImage& icon) const;

  // The windows that were hidden because the host asked for it, in the given order, with the two context values of that
  // request.
  void GuestCmdHiddenWindows(std::uint32_t context_a, std::uint32_t context_b,
                             std::span<const std::uint32_t> windows) const;

  void GuestCmdAppMenu(std::span<const AppMenuItem> items) const;
  void GuestCmdFinishEnum() const;

 private:
  // GuestCmdSend() for a command whose reply is not used. On failure logs the text `failure`.
  void SendOrLog(std::span<const std::byte> block, std::size_t reply_size, const char* failure) const;

  Submit submit_;
};

}  // namespace qel
