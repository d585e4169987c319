// The guest commands whose body is a message buffer: the hidden windows and the applications menu.
#include <array>
#include <limits>

#include "log/log.h"
#include "tools_gate/guest_commands.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_buffer.h"

namespace qel {
namespace {

constexpr std::uint32_t kHiddenWindows = 108;
constexpr std::uint32_t kAppMenu = 125;
constexpr std::uint32_t kAppMenuFlags = 0x810;

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

constexpr std::size_t kMaxSize = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kU32Size = 4;

// All zero but one number.
constexpr std::size_t kIconHeaderSize = 64;
constexpr std::size_t kIconHeaderNumber = 8;

void StoreHeader(const MessageBuffer& message, std::uint32_t code, std::uint32_t flags) {
  std::byte* const block = bbData(message);
  StoreU32(block, code);
  StoreU32(block + 4, kGuestCommandVersion);
  StoreU32(block + 8, 0);
  StoreU32(block + 12, flags);
  StoreU32(block + 16, bbSize(message) - static_cast<std::uint32_t>(kGuestCommandHeaderSize));
}

int PutU32(MessageBuffer& buffer, std::uint32_t value, std::uint32_t tag) {
  std::array<std::byte, kU32Size> bytes{};
  StoreU32(bytes.data(), value);
  return bbPut(buffer, bytes.data(), kU32Size, tag);
}

int PutText(MessageBuffer& buffer, std::string_view text, std::uint32_t tag) {
  return bbPut(buffer, text.data(), static_cast<std::uint32_t>(text.size()), tag);
}

// Appends a field that holds a message buffer of `size` bytes and starts that buffer in place: nothing that goes into
// it is copied twice.
int PutInner(MessageBuffer& outer, MessageBuffer& inner, std::size_t size, std::uint32_t tag) {
  if (const int result = bbPut(outer, nullptr, static_cast<std::uint32_t>(size), tag); result != kBbSuccess) {
    return result;
  }
  return bbComposeIn(inner, {bbData(outer) + outer.position - size, size});
}

std::size_t FieldSize(std::size_t data_size) {
  return kBbFieldHeaderSize + data_size;
}

std::size_t IconSize(const AppMenuItem& item) {
  return kBbHeaderSize + FieldSize(kIconHeaderSize) + FieldSize(item.icon.size());
}

std::size_t EntrySize(const AppMenuItem& item) {
  return kBbHeaderSize + FieldSize(item.path.size()) + FieldSize(item.name.size()) + FieldSize(kU32Size) +
         (item.location.empty() ? 0 : FieldSize(item.location.size())) +
         (item.icon.empty() ? 0 : FieldSize(IconSize(item)));
}

int PutIcon(MessageBuffer& entry, const AppMenuItem& item) {
  std::array<std::byte, kIconHeaderSize> header{};
  StoreU32(header.data() + kIconHeaderNumber, 1);
  MessageBuffer icon;
  int result = PutInner(entry, icon, IconSize(item), kEntryIcon);
  if (result == kBbSuccess) {
    result = bbPut(icon, header.data(), kIconHeaderSize, kIconHeader);
  }
  if (result == kBbSuccess) {
    result = bbPut(icon, item.icon.data(), static_cast<std::uint32_t>(item.icon.size()), kIconBytes);
  }
  return result;
}

int PutEntry(MessageBuffer& menu, const AppMenuItem& item) {
  MessageBuffer entry;
  int result = PutInner(menu, entry, EntrySize(item), kMenuEntry);
  if (result == kBbSuccess) {
    result = PutText(entry, item.path, kEntryPath);
  }
  if (result == kBbSuccess) {
    result = PutText(entry, item.name, kEntryName);
  }
  if (result == kBbSuccess) {
    result = PutU32(entry, item.modified, kEntryModified);
  }
  if (result == kBbSuccess && !item.location.empty()) {
    result = PutText(entry, item.location, kEntryLocation);
  }
  if (result == kBbSuccess && !item.icon.empty()) {
    result = PutIcon(entry, item);
  }
  return result;
}

}  // namespace

void GuestCommands::GuestCmdHiddenWindows(std::uint32_t context_a, std::uint32_t context_b,
                                          std::span<const std::uint32_t> windows) const {
  constexpr std::uint32_t kPrefixSize = 36;
  constexpr std::size_t kPrefixSizeOffset = 32;
  constexpr std::size_t kWindowSize = 8;  // the window id and a zero

  MessageBuffer message;
  if (const int result = bbCompose(message, kPrefixSize); result != kBbSuccess) {
    LogError(kModuleAgent, "Error: bbCompose() error %i", result);
    return;
  }
  const MessageBufferOwner owner(message);
  int result = PutU32(message, context_a, kContextA);
  if (result == kBbSuccess) {
    result = PutU32(message, context_b, kContextB);
  }
  if (result != kBbSuccess) {
    LogError(kModuleAgent, "Error: bbPut() error %i", result);
    return;
  }
  const std::size_t list_size = windows.size() * kWindowSize;
  if (list_size > kMaxSize) {
    LogError(kModuleAgent, "Error: malloc() failed");
    return;
  }
  result = bbPut(message, nullptr, static_cast<std::uint32_t>(list_size), kWindowList);
  if (result != kBbSuccess) {
    LogError(kModuleAgent, "Error: bbPut() err %i", result);
    return;
  }
  std::byte* place = bbData(message) + message.position - list_size;
  for (const std::uint32_t window : windows) {
    StoreU32(place, window);
    StoreU32(place + 4, 0);
    place += kWindowSize;
  }

  StoreHeader(message, kHiddenWindows, 0);
  std::byte* const prefix = bbData(message);
  for (std::size_t offset = kGuestCommandHeaderSize; offset != kPrefixSizeOffset; ++offset) {
    prefix[offset] = std::byte{0};
  }
  StoreU32(prefix + kPrefixSizeOffset, kPrefixSize);
  std::array<std::byte, kGuestCommandHeaderSize> reply{};
  if (!GuestCmdSend({prefix, bbSize(message)}, reply)) {
    LogError(kModuleAgent, "Error: Failed to send to host list of hidden windows");
  }
}

void GuestCommands::GuestCmdAppMenu(std::span<const AppMenuItem> items) const {
  std::size_t fields_size = 0;
  for (const AppMenuItem& item : items) {
    fields_size += FieldSize(EntrySize(item));
  }
  MessageBuffer message;
  const int composed = fields_size <= kMaxSize
                           ? bbComposeSized(message, kGuestCommandHeaderSize, static_cast<std::uint32_t>(fields_size))
                           : kBbNoMemory;
  if (composed != kBbSuccess) {
    LogError(kModuleAgent, "Error: bbCompose() error %i", composed);
    return;
  }
  const MessageBufferOwner owner(message);
  for (const AppMenuItem& item : items) {
    if (const int result = PutEntry(message, item); result != kBbSuccess) {
      LogError(kModuleAgent, "Error: bbPut() error %i", result);
      return;
    }
  }
  StoreHeader(message, kAppMenu, kAppMenuFlags);
  std::array<std::byte, kGuestCommandHeaderSize> reply{};
  if (!GuestCmdSend({bbData(message), bbSize(message)}, reply)) {
    LogError(kModuleAgent, "Error: Failed to send AppMenu to host");
  }
}

}  // namespace qel
