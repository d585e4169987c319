// The decoded messages of an agent: one type for each message.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/bytes.h"

namespace qel::host {

// An icon: pixels (`argb` is true; little-endian ARGB words, row by row) or the content of an image file. All copies
// share the bytes, which never change.
struct Icon {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool argb = false;
  std::shared_ptr<const Bytes> bytes;

  std::size_t ByteCount() const { return bytes ? bytes->size() : 0; }
  bool IsEmpty() const { return ByteCount() == 0; }
};

// The layout of a service message in its request.
enum class ServiceLayout {
  kBuffers,     // sub-header and data in buffers
  kInlineHead,  // sub-header inline, data in a buffer
  kInline,      // everything inline
};

struct Probe {};

struct ProductVersion {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t build = 0;
  std::uint32_t flags_a = 0;
  std::uint32_t flags_b = 0;
  std::uint32_t product = 0;
};

struct RegisterService {
  ServiceLayout layout = ServiceLayout::kBuffers;
  std::string name;
  std::optional<std::string> title;
  std::optional<ProductVersion> version;
  std::optional<std::string> session;
  std::optional<Bytes> extra;
};

struct UnregisterService {
  ServiceLayout layout = ServiceLayout::kBuffers;
  std::string name;
};

struct ToolState {
  bool active = false;
};

struct AddRun {
  std::uint32_t pid = 0;
  std::uint32_t window = 0;
  std::uint32_t flags = 0;
  std::string name;
  std::string path;
  std::string title;
  Icon icon;
  std::optional<Icon> small_icon;
};

struct RmvRun {
  std::uint32_t pid = 0;
  std::uint32_t window = 0;
};

struct HiddenWindows {
  std::uint32_t context_a = 0;
  std::uint32_t context_b = 0;
  std::vector<std::uint32_t> windows;
};

struct WindowTitle {
  std::uint32_t pid = 0;
  std::uint32_t window = 0;
  std::string title;
};

struct FinishEnum {};

struct RmvRunByPath {
  std::uint32_t pid = 0;
  std::string path;
};

struct MenuEntry {
  std::string path;  // of the desktop file
  std::string name;
  std::uint32_t time = 0;  // of its last change, in seconds since the epoch; 0: unknown
  std::optional<std::string> location;
  std::optional<Icon> icon;
};

struct AppMenu {
  std::vector<MenuEntry> entries;
};

struct UpdateAppIcon {
  std::uint32_t pid = 0;
  std::uint32_t window = 0;
  Icon icon;
};

// The agent fetches the next host command, or, with `large`, a command that was too large for the first answer.
struct Fetch {
  bool large = false;
  std::uint32_t capacity = 0;  // size of the reply area in bytes
};

// A message of an unknown kind.
struct Unknown {
  std::uint32_t request_code = 0;
  std::optional<std::uint32_t> command;
};

using Notification = std::variant<Probe, RegisterService, UnregisterService, ToolState, AddRun, RmvRun, HiddenWindows,
                                  WindowTitle, FinishEnum, RmvRunByPath, AppMenu, UpdateAppIcon, Fetch, Unknown>;

// The alternatives of Notification, in the same order.
enum class MessageKind : std::size_t {
  kProbe,
  kRegister,
  kUnregister,
  kToolState,
  kAddRun,
  kRmvRun,
  kHiddenWindows,
  kWindowTitle,
  kFinishEnum,
  kRmvRunByPath,
  kAppMenu,
  kUpdateAppIcon,
  kFetch,
  kUnknown,
};
inline constexpr std::size_t kMessageKinds = std::variant_size_v<Notification>;

inline MessageKind KindOf(const Notification& notification) {
  return static_cast<MessageKind>(notification.index());
}

// The name of a kind in input and output: "probe", "register", "add-run", ...
const char* KindName(MessageKind kind);
// The kind with this name, or with this code of a guest command in decimal ("104").
std::optional<MessageKind> KindFromName(const std::string& name);

const char* LayoutName(ServiceLayout layout);

}  // namespace qel::host
