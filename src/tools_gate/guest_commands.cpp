#include "tools_gate/guest_commands.h"

#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "log/log.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_composer.h"
#include "tools_gate/text_conversion.h"

namespace qel {
namespace {

enum GuestCommandCode : std::uint32_t {
  kToolActive = 100,
  kToolStops = 101,
  kAddRun = 104,
  kRmvRun = 105,
  kHiddenWindows = 108,
  kWindowTitle = 112,
  kFinishEnum = 113,
  kRmvRunByPath = 114,
  kAppMenu = 125,
  kUpdateAppIcon = 137,
};

enum FieldTag : std::uint32_t {
  kMenuEntry = 0x2001,
  kEntryLocation = 0x2002,
  kEntryName = 0x2003,
  kEntryPath = 0x2007,
  kEntryModified = 0x200D,
  kWindowList = 0x200F,
  kContextA = 0x2010,
  kContextB = 0x2011,
  kEntryIcon = 0x2014,
  kIconHeader = 0x2015,
  kIconBytes = 0x2016,
};

constexpr std::size_t kPidOffset = 20;       // in every command with a process id; 12 zero bytes follow
constexpr std::size_t kLargestReply = 1622;  // the reply to GuestCmdAddRun()

// Writes the header of a block whose header bytes are still zero.
void StoreHeader(std::byte* block, std::uint32_t code, std::size_t body_length, std::uint32_t flags = 0) {
  StoreU32(block, code);
  StoreU32(block + 4, kGuestCommandVersion);
  StoreU32(block + 12, flags);
  StoreU32(block + 16, static_cast<std::uint32_t>(body_length));
}

// A command block of fixed size with its header and, when it has a body, the process id; all other bytes are zero.
template <std::size_t kSize>
std::array<std::byte, kSize> FixedBlock(std::uint32_t code, std::int32_t pid = 0) {
  std::array<std::byte, kSize> block{};
  StoreHeader(block.data(), code, kSize - kGuestCommandHeaderSize);
  if constexpr (kSize > kGuestCommandHeaderSize) {
    StoreU32(block.data() + kPidOffset, static_cast<std::uint32_t>(pid));
  }
  return block;
}

void StoreText(std::byte* field, const std::string& text) {
  TextToUtf16(std::span(field, kTextFieldSize), text);
}

// Allocates memory. The first `zeroed` bytes are zero, the others are not initialised. Returns null when there is not
// enough memory, or when the size does not fit into 32 bits.
std::unique_ptr<std::byte[]> Allocate(std::size_t size, std::size_t zeroed) {
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    return nullptr;
  }
  std::unique_ptr<std::byte[]> block(new (std::nothrow) std::byte[size]);
  if (block != nullptr) {
    std::memset(block.get(), 0, zeroed);
  }
  return block;
}

std::byte* AppendBytes(std::byte* to, const std::vector<std::byte>& bytes) {
  if (!bytes.empty()) {
    std::memcpy(to, bytes.data(), bytes.size());
  }
  return to + bytes.size();
}

// Returns whether the message was composed without an error; otherwise logs the first error. `call` is the log text for
// an error after the start of the message.
bool IsComposed(const MessageComposer& message, const char* call) {
  if (message.Result() != kBbSuccess) {
    LogError(kModuleAgent, "Error: %s %i", message.IsStarted() ? call : "bbCompose() error", message.Result());
  }
  return message.Result() == kBbSuccess;
}

void PutEntry(MessageComposer& menu, const AppMenuItem& item) {
  MessageComposer entry(0);
  entry.PutText(item.path, kEntryPath);
  entry.PutText(item.name, kEntryName);
  entry.PutNumbers({item.modified}, kEntryModified);
  if (!item.location.empty()) {
    entry.PutText(item.location, kEntryLocation);
  }
  if (!item.icon.empty()) {
    MessageComposer icon(0);
    icon.PutNumbers({0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, kIconHeader);
    icon.Put(item.icon, kIconBytes);
    entry.Put(icon, kEntryIcon);
  }
  menu.Put(entry, kMenuEntry);
}

}  // namespace

bool GuestCommands::GuestCmdSend(std::span<const std::byte> block, std::span<std::byte> reply) const {
  constexpr std::size_t kMaxSize = std::numeric_limits<std::uint32_t>::max();
  if (block.size() > kMaxSize || reply.size() > kMaxSize) {
    return false;
  }
  const std::array<TgBuffer, 2> buffers{{
      // The host never writes to it, because `writable` is false.
      {.data = const_cast<std::byte*>(block.data()), .size = static_cast<std::uint32_t>(block.size())},
      {.data = reply.data(), .size = static_cast<std::uint32_t>(reply.size()), .writable = true},
  }};
  TgRequest request{.code = kTgGuestCommand, .buffers = buffers};
  return submit_(request) && request.status == kTgStatusSuccess;
}

void GuestCommands::SendOrLog(std::span<const std::byte> block, std::size_t reply_size, const char* failure) const {
  std::array<std::byte, kLargestReply> reply{};
  if (!GuestCmdSend(block, std::span(reply).first(reply_size))) {
    LogError(kModuleAgent, "%s", failure);
  }
}

void GuestCommands::GuestCmdToolState(bool active) const {
  const auto block = FixedBlock<kGuestCommandHeaderSize>(active ? kToolActive : kToolStops);
  SendOrLog(block, kGuestCommandHeaderSize, "Error: GuestCmdToolState() failed");
}

void GuestCommands::GuestCmdAddRun(std::uint32_t window, std::int32_t pid, const std::string& name,
                                   const std::string& path, const std::string& title, const IconImage& large,
                                   const IconImage& small) const {
  constexpr std::size_t kFlags = 36;
  constexpr std::size_t kName = 40;
  constexpr std::size_t kPath = 562;
  constexpr std::size_t kWindow = 1084;
  constexpr std::size_t kTitle = 1092;
  constexpr std::size_t kIconWidth = 1614;
  constexpr std::size_t kIconHeight = 1618;
  constexpr std::size_t kIcon = 1622;
  constexpr std::size_t kSmallIconHeader = 8;
  constexpr std::uint32_t kSmallIconSize = 16;
  constexpr std::uint32_t kHasSmallIcon = 1U << 1;
  constexpr std::uint32_t kIconIsFile = 1U << 10;

  const bool has_small = !small.IsEmpty();
  const std::size_t size = kIcon + large.bytes.size() + (has_small ? kSmallIconHeader + small.bytes.size() : 0);
  const auto block = Allocate(size, kIcon);
  if (block == nullptr) {
    LogError(kModuleAgent, "Error: 'AddApp' failed. Not enough memory");
    return;
  }
  LogInfo(kModuleAgent, "Running app: pid=%d name='%s' path='%s' title='%s' icon(%zux%zu)", pid, name.c_str(),
          path.c_str(), title.c_str(), std::size_t{large.width}, std::size_t{large.height});

  std::byte* const start = block.get();
  StoreHeader(start, kAddRun, 0);  // only in this message the length field is 0
  StoreU32(start + kPidOffset, static_cast<std::uint32_t>(pid));
  StoreU32(start + kFlags, (large.argb ? 0 : kIconIsFile) | (has_small ? kHasSmallIcon : 0));
  StoreText(start + kName, name);
  StoreText(start + kPath, path);
  StoreU32(start + kWindow, window);
  StoreText(start + kTitle, title);
  StoreU32(start + kIconWidth, large.width);
  StoreU32(start + kIconHeight, large.height);
  std::byte* const behind_icon = AppendBytes(start + kIcon, large.bytes);
  if (has_small) {
    StoreU32(behind_icon, kSmallIconSize);
    StoreU32(behind_icon + 4, kSmallIconSize);
    AppendBytes(behind_icon + kSmallIconHeader, small.bytes);
  }

  SendOrLog(std::span(start, size), kIcon, "Error: Failed to tell host command 'AddRun'");
}

void GuestCommands::GuestCmdRmvRun(std::int32_t pid, std::uint32_t window) const {
  constexpr std::size_t kSize = 44;
  constexpr std::size_t kWindow = 36;
  LogInfo(kModuleAgent, "Remove app: pid=%d wnd=%lx", pid, static_cast<unsigned long>(window));
  auto block = FixedBlock<kSize>(kRmvRun, pid);
  StoreU32(block.data() + kWindow, window);
  SendOrLog(block, kSize, "Error: Failed to tell host command 'RmvRun'");
}

void GuestCommands::GuestCmdRmvRunByPath(std::int32_t pid, const std::string& path) const {
  constexpr std::size_t kPath = 36;
  constexpr std::size_t kSize = kPath + kTextFieldSize;
  LogInfo(kModuleAgent, "Remove app: pid=%d path='%s'", pid, path.c_str());
  auto block = FixedBlock<kSize>(kRmvRunByPath, pid);
  StoreText(block.data() + kPath, path);
  SendOrLog(block, kSize, "Error: Failed to tell host command 'RmvRunByPath'");
}

void GuestCommands::GuestCmdWindowTitle(std::uint32_t window, std::int32_t pid, const std::string& title) const {
  constexpr std::size_t kWindow = 36;
  constexpr std::size_t kTitle = 44;
  constexpr std::size_t kSize = kTitle + kTextFieldSize;
  auto block = FixedBlock<kSize>(kWindowTitle, pid);
  StoreU32(block.data() + kWindow, window);
  StoreText(block.data() + kTitle, title);
  SendOrLog(block, kSize, "Error: Failed to send window title update to host");
}

void GuestCommands::GuestCmdUpdateAppIcon(std::uint32_t window, std::int32_t pid, const IconImage& icon) const {
  constexpr std::size_t kWindow = 40;
  constexpr std::size_t kIconWidth = 48;
  constexpr std::size_t kIconHeight = 52;
  constexpr std::size_t kIcon = 56;
  const std::size_t size = kIcon + icon.bytes.size();
  const auto block = Allocate(size, kIcon);
  if (block == nullptr) {
    LogError(kModuleAgent, "Error: 'UpdateAppIcon' failed. Not enough memory");
    return;
  }
  std::byte* const start = block.get();
  StoreHeader(start, kUpdateAppIcon, size - kGuestCommandHeaderSize);
  StoreU32(start + kPidOffset, static_cast<std::uint32_t>(pid));
  StoreU32(start + kWindow, window);
  StoreU32(start + kIconWidth, icon.width);
  StoreU32(start + kIconHeight, icon.height);
  AppendBytes(start + kIcon, icon.bytes);
  SendOrLog(std::span(start, size), kIcon, "Error: Failed to send new app icon to host");
}

void GuestCommands::GuestCmdFinishEnum() const {
  const auto block = FixedBlock<kGuestCommandHeaderSize>(kFinishEnum);
  SendOrLog(block, kGuestCommandHeaderSize, "Error: GuestCmdFinishEnum() failed");
}

void GuestCommands::GuestCmdHiddenWindows(std::uint32_t context_a, std::uint32_t context_b,
                                          std::span<const std::uint32_t> windows) const {
  constexpr std::uint32_t kPrefixSize = 36;
  constexpr std::size_t kPrefixSizeOffset = 32;
  constexpr std::size_t kWindowSize = 8;  // the window id and a zero

  MessageComposer message(kPrefixSize);
  message.PutNumbers({context_a}, kContextA);
  message.PutNumbers({context_b}, kContextB);
  if (!IsComposed(message, "bbPut() error")) {
    return;
  }
  const std::size_t list_size = windows.size() * kWindowSize;
  const auto list = Allocate(list_size, list_size);
  if (list == nullptr) {
    LogError(kModuleAgent, "Error: malloc() failed");
    return;
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    StoreU32(list.get() + i * kWindowSize, windows[i]);
  }
  message.Put({list.get(), list_size}, kWindowList);
  if (!IsComposed(message, "bbPut() err")) {
    return;
  }
  const std::span<std::byte> block = message.Bytes();
  StoreHeader(block.data(), kHiddenWindows, block.size() - kGuestCommandHeaderSize);
  StoreU32(block.data() + kPrefixSizeOffset, kPrefixSize);
  SendOrLog(block, kGuestCommandHeaderSize, "Error: Failed to send to host list of hidden windows");
}

void GuestCommands::GuestCmdAppMenu(std::span<const AppMenuItem> items) const {
  constexpr std::uint32_t kFlags = 0x810;
  MessageComposer message(kGuestCommandHeaderSize);
  for (const AppMenuItem& item : items) {
    PutEntry(message, item);
  }
  if (!IsComposed(message, "bbPut() error")) {
    return;
  }
  const std::span<std::byte> block = message.Bytes();
  StoreHeader(block.data(), kAppMenu, block.size() - kGuestCommandHeaderSize, kFlags);
  SendOrLog(block, kGuestCommandHeaderSize, "Error: Failed to send AppMenu to host");
}

}  // namespace qel
