// The messages by which the agent tells the host what runs in the guest.
//
// Each message is one block (a 20-byte header and a body) in a Tools Gate request of code 0x8302. It is sent once. A
// failure is logged here; the callers are not told. All texts are in the locale's character set. Arguments are only
// read, and only during the call. Any thread may call anything here.
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

// One application of the applications menu, as the host is to show it. Texts and icon stay the caller's.
struct AppMenuItem {
  std::string_view path;            // of the desktop file
  std::string_view name;            // shown to the user
  std::string_view location;        // path of its menu below the top one; empty in the top one
  std::uint32_t modified = 0;       // of the desktop file, seconds since the epoch; 0 when unknown
  std::span<const std::byte> icon;  // the icon file's bytes; empty when there is none
};

class GuestCommands {
 public:
  // How a request is handed over: true when the host has processed it (its answer is in `status`).
  using Submit = std::function<bool(TgRequest&)>;

  explicit GuestCommands(Submit submit = TgDeviceHandleSubmit) : submit_(std::move(submit)) {}

  // Sends a command block and takes the host's reply into `reply`, which the caller has filled with zeros. True when
  // the host accepted the command (status 0). Both sizes have to fit into 32 bits, or it returns false.
  bool GuestCmdSend(std::span<const std::byte> block, std::span<std::byte> reply) const;

  // The tool serves (true) or stops (false).
  void GuestCmdToolState(bool active) const;

  // A window of an application appeared. `window` is the top-level window. A non-empty `small` icon is 16 x 16 ARGB
  // pixels.
  void GuestCmdAddRun(std::uint32_t window, std::int32_t pid, const std::string& name, const std::string& path,
                      const std::string& title, const IconImage& large, const IconImage& small) const;

  // A window went.
  void GuestCmdRmvRun(std::int32_t pid, std::uint32_t window) const;

  // A started program ended before it showed a window.
  void GuestCmdRmvRunByPath(std::int32_t pid, const std::string& path) const;

  void GuestCmdWindowTitle(std::uint32_t window, std::int32_t pid, const std::string& title) const;
  void GuestCmdUpdateAppIcon(std::uint32_t window, std::int32_t pid, const IconImage& icon) const;

  // The windows hidden at the host's request, in the caller's order, with the request's two context values.
  void GuestCmdHiddenWindows(std::uint32_t context_a, std::uint32_t context_b,
                             std::span<const std::uint32_t> windows) const;

  void GuestCmdAppMenu(std::span<const AppMenuItem> items) const;
  void GuestCmdFinishEnum() const;

 private:
  // GuestCmdSend() for a command whose reply nobody reads; `failure` is the line for the log.
  void SendOrLog(std::span<const std::byte> block, std::size_t reply_size, const char* failure) const;

  Submit submit_;
};

}  // namespace qel
