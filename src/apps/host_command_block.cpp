#include "apps/host_command_block.h"

#include <cstring>

#include "tools_gate/guest_commands.h"
#include "tools_gate/message_buffer.h"
#include "tools_gate/text_conversion.h"

namespace qel {
namespace {

// The host sends a block with this code instead of a command that is too large for the buffer.
constexpr std::uint32_t kTooLargeCode = 126;
constexpr std::uint32_t kNoCommand = 0xFFFFFFFF;
constexpr std::uint32_t kForceFlag = 0x20;

constexpr std::size_t kReservedOffset = 8;
constexpr std::size_t kFlagsOffset = 12;
constexpr std::size_t kPayloadSizeOffset = 16;
constexpr std::size_t kPayloadOffset = kHostCommandHeaderSize;

// Here hide and activate commands have the offset of their field buffer in the block.
constexpr std::size_t kFieldsOffsetOffset = 32;
constexpr std::uint32_t kLargestSingleIdPayload = 16;

// The start command.
constexpr std::uint32_t kFieldLayoutMark = 0xFFFFFFFF;
constexpr std::size_t kSmallestStartSize = 25;
constexpr std::size_t kMarkedFieldsOffset = 24;
constexpr std::size_t kFixedLayoutSize = kPayloadOffset + 2 * kTextFieldSize;

// Tags of the fields in a command's field buffer.
constexpr std::uint32_t kTagProcessIds = 0x2006;
constexpr std::uint32_t kTagApplication = 0x200B;
constexpr std::uint32_t kTagWindows = 0x200F;
constexpr std::uint32_t kTagContextA = 0x2010;
constexpr std::uint32_t kTagContextB = 0x2011;
constexpr std::uint32_t kTagDocument = 0x2016;

constexpr std::size_t kProcessIdSize = 4;
constexpr std::size_t kWindowItemSize = 8;  // the id and a zero

// Bytes after the end of the block read as zero.
std::uint32_t ReadU32(std::span<const std::byte> bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < sizeof value && offset + i < bytes.size(); ++i) {
    value |= std::to_integer<std::uint32_t>(bytes[offset + i]) << (8 * i);
  }
  return value;
}

std::int32_t ReadI32(std::span<const std::byte> bytes, std::size_t offset) {
  return static_cast<std::int32_t>(ReadU32(bytes, offset));
}

// A text ends at its first zero byte, if there is one, because paths cannot contain zero bytes.
std::string TextOf(std::span<const std::byte> bytes) {
  const auto* text = reinterpret_cast<const char*>(bytes.data());
  return {text, strnlen(text, bytes.size())};
}

std::vector<std::int32_t> ProcessIdsOf(std::span<const std::byte> bytes) {
  std::vector<std::int32_t> pids;
  pids.reserve(bytes.size() / kProcessIdSize);
  for (std::size_t offset = 0; offset + kProcessIdSize <= bytes.size(); offset += kProcessIdSize) {
    pids.push_back(ReadI32(bytes, offset));
  }
  return pids;
}

std::vector<WindowId> WindowsOf(std::span<const std::byte> bytes) {
  std::vector<WindowId> windows;
  windows.reserve(bytes.size() / kWindowItemSize);
  for (std::size_t offset = 0; offset + kWindowItemSize <= bytes.size(); offset += kWindowItemSize) {
    windows.push_back(ReadU32(bytes, offset));
  }
  return windows;
}

// Calls `visit` with the tag and the data of each field, up to the first invalid field or until `visit` returns false.
// A field buffer that does not fit into the block counts as empty.
template <typename Visit>
void ForEachField(std::span<const std::byte> block, std::size_t offset, Visit visit) {
  MessageBuffer fields;
  int result = bbAttach(fields, block, static_cast<std::uint32_t>(offset));
  while (result == kBbSuccess && visit(bbFieldTag(fields), bbFieldData(fields))) {
    result = bbNext(fields);
  }
}

std::optional<HostCommand> DecodeStartApp(std::span<const std::byte> block) {
  if (block.size() < kSmallestStartSize) {
    return std::nullopt;
  }
  const bool marked = ReadU32(block, kPayloadOffset) == kFieldLayoutMark;
  StartAppCommand command;
  if (!marked && block.size() == kFixedLayoutSize) {
    command.app = TextFromUtf16(block.subspan(kPayloadOffset, kTextFieldSize));
    command.document = TextFromUtf16(block.subspan(kPayloadOffset + kTextFieldSize, kTextFieldSize));
    return command;
  }
  if (!marked && block.size() < kFixedLayoutSize) {
    return std::nullopt;
  }
  ForEachField(block, marked ? kMarkedFieldsOffset : kFixedLayoutSize, [&](std::uint32_t tag, auto data) {
    if (tag == kTagApplication) {
      command.app = TextOf(data);
    } else if (tag == kTagDocument) {
      command.documents.push_back(TextOf(data));
    }
    return true;
  });
  return command;
}

QuitAppCommand DecodeQuitApp(std::span<const std::byte> block, std::uint32_t flags) {
  return {.pid = ReadI32(block, kPayloadOffset), .force = (flags & kForceFlag) != 0};
}

HideAppsCommand DecodeHideApps(std::span<const std::byte> block) {
  HideAppsCommand command;
  command.pids = {ReadI32(block, kPayloadOffset)};
  const std::uint32_t offset = ReadU32(block, kFieldsOffsetOffset);
  if (offset == 0) {
    return command;
  }
  ForEachField(block, offset, [&](std::uint32_t tag, auto data) {
    if (tag == kTagProcessIds && data.size() >= kProcessIdSize) {
      command.pids = ProcessIdsOf(data);
    } else if (tag == kTagWindows) {
      command.excluded_clients = WindowsOf(data);
    } else if (tag == kTagContextA && data.size() >= sizeof command.context_a) {
      command.context_a = ReadU32(data, 0);
    } else if (tag == kTagContextB && data.size() >= sizeof command.context_b) {
      command.context_b = ReadU32(data, 0);
    }
    return true;
  });
  return command;
}

ActivateAppsCommand DecodeActivateApps(std::span<const std::byte> block, std::uint32_t payload_size) {
  ActivateAppsCommand command;
  command.pids = {ReadI32(block, kPayloadOffset)};
  const std::uint32_t offset = ReadU32(block, kFieldsOffsetOffset);
  if (payload_size <= kLargestSingleIdPayload || offset == 0) {
    return command;
  }
  ForEachField(block, offset, [&](std::uint32_t tag, auto data) {
    if (tag != kTagProcessIds) {
      return true;
    }
    if (data.size() >= kProcessIdSize) {
      command.pids = ProcessIdsOf(data);
    }
    return false;  // only the first list is used
  });
  return command;
}

}  // namespace

std::optional<std::uint32_t> LargeHostCommandSize(std::span<const std::byte> received) {
  if (ReadU32(received, 0) != kTooLargeCode) {
    return std::nullopt;
  }
  return ReadU32(received, kPayloadOffset);
}

std::optional<HostCommand> DecodeHostCommand(std::span<const std::byte> received) {
  const std::uint32_t flags = ReadU32(received, kFlagsOffset);
  const std::uint32_t payload_size = ReadU32(received, kPayloadSizeOffset);
  const std::uint64_t size = std::uint64_t{payload_size} + kHostCommandHeaderSize;
  if (ReadU32(received, kReservedOffset) == kNoCommand || size > received.size()) {
    return std::nullopt;
  }
  const std::span<const std::byte> block = received.first(static_cast<std::size_t>(size));
  switch (HostCommandCode{ReadU32(block, 0)}) {
    case HostCommandCode::kReset:
      return ResetCommand{};
    case HostCommandCode::kStartApp:
      return DecodeStartApp(block);
    case HostCommandCode::kQuitApp:
      return DecodeQuitApp(block, flags);
    case HostCommandCode::kHideApps:
      return DecodeHideApps(block);
    case HostCommandCode::kActivateApps:
    case HostCommandCode::kActivateAppsAlso:
      return DecodeActivateApps(block, payload_size);
    case HostCommandCode::kActivateWindow:
      return ActivateWindowCommand{ReadU32(block, kPayloadOffset)};
  }
  return std::nullopt;
}

}  // namespace qel
