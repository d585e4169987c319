#include "control_extension/x_stream.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace qel::control_extension {
namespace {

// Core protocol.
constexpr std::uint8_t kBigEndianMark = 'B';
constexpr std::uint8_t kSetupSuccess = 1;
constexpr std::uint8_t kErrorType = 0;
constexpr std::uint8_t kReplyType = 1;
constexpr std::uint8_t kGenericEventType = 35;
constexpr std::uint8_t kSentEventBit = 0x80;
constexpr std::uint8_t kQueryExtension = 98;
constexpr std::uint8_t kGetInputFocus = 43;
constexpr std::size_t kClientSetupSize = 12;
constexpr std::size_t kServerSetupSize = 8;
constexpr std::size_t kRequestHeaderSize = 4;
constexpr std::size_t kBigRequestHeaderSize = 8;
constexpr std::size_t kPacketSize = 32;

// The extension.
constexpr std::string_view kExtensionName = "CorvessanControl";
constexpr std::uint8_t kMinorIsConsoleActive = 28;
constexpr std::uint8_t kMinorClaimUserSession = 29;
constexpr std::size_t kConsoleRequestSize = 4;
constexpr std::size_t kClaimRequestSize = 8;

// Extensions whose requests contain file descriptors, which the proxy cannot forward.
constexpr std::string_view kHiddenExtensions[] = {"DRI3", "MIT-SHM"};

// Longer requests never need to be inspected.
constexpr std::size_t kMaxInspected = 64;

constexpr std::uint64_t kForEver = std::numeric_limits<std::uint64_t>::max();

std::uint16_t Get16(const Bytes& bytes, std::size_t at, bool big_endian) {
  const unsigned first = bytes[at];
  const unsigned second = bytes[at + 1];
  return static_cast<std::uint16_t>(big_endian ? first << 8 | second : second << 8 | first);
}

std::uint32_t Get32(const Bytes& bytes, std::size_t at, bool big_endian) {
  const std::uint32_t first = Get16(bytes, at, big_endian);
  const std::uint32_t second = Get16(bytes, at + 2, big_endian);
  return big_endian ? first << 16 | second : second << 16 | first;
}

std::size_t Padded(std::size_t size) {
  return (size + 3) / 4 * 4;
}

// Consumes input: first forwards `pass_left` bytes to `output`, then moves bytes to `held` until it has the size
// `wanted`. Returns true when `held` has this size, false when the input is used up.
bool Collect(std::span<const std::uint8_t>& input, std::uint64_t& pass_left, Bytes& held, std::size_t wanted,
             Bytes& output) {
  const auto take = [&](Bytes& target, std::uint64_t limit) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(limit, input.size()));
    target.insert(target.end(), input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
    input = input.subspan(count);
    return count;
  };
  pass_left -= take(output, pass_left);
  if (pass_left > 0) {
    return false;
  }
  take(held, wanted - held.size());
  return held.size() == wanted;
}

// Forwards the held bytes. Returns how many bytes of the request or reply of `unit_size` bytes are still missing.
std::uint64_t Release(Bytes& held, std::uint64_t unit_size, Bytes& output) {
  const std::uint64_t left = unit_size > held.size() ? unit_size - held.size() : 0;
  output.insert(output.end(), held.begin(), held.end());
  held.clear();
  return left;
}

}  // namespace

void RequestStream::Feed(std::span<const std::uint8_t> input, Bytes& output) {
  while (Collect(input, pass_left_, held_, wanted_, output)) {
    if (set_up_) {
      OnRequest(output);
    } else {
      OnSetup(output);
    }
  }
}

// The connection setup: byte order, protocol version, and authorisation name and data.
void RequestStream::OnSetup(Bytes& output) {
  conversation_.big_endian = held_[0] == kBigEndianMark;
  const std::size_t name_size = Get16(held_, 6, conversation_.big_endian);
  const std::size_t data_size = Get16(held_, 8, conversation_.big_endian);
  pass_left_ = Release(held_, kClientSetupSize + Padded(name_size) + Padded(data_size), output);
  set_up_ = true;
  wanted_ = kRequestHeaderSize;
}

void RequestStream::OnRequest(Bytes& output) {
  const bool big_request = Get16(held_, 2, conversation_.big_endian) == 0;
  if (big_request && held_.size() < kBigRequestHeaderSize) {
    wanted_ = kBigRequestHeaderSize;
    return;
  }
  const std::uint64_t units =
      big_request ? Get32(held_, 4, conversation_.big_endian) : Get16(held_, 2, conversation_.big_endian);
  const std::uint64_t size = units * 4;
  const bool of_interest = held_[0] == kQueryExtension || held_[0] == kMajorOpcode;
  if (of_interest && !big_request && size <= kMaxInspected) {
    if (held_.size() < size) {
      wanted_ = static_cast<std::size_t>(size);
      return;
    }
    ++sequence_;
    Inspect();
    pass_left_ = Release(held_, held_.size(), output);  // all of it; Inspect() may have changed its size
  } else {
    ++sequence_;
    pass_left_ = Release(held_, size, output);
  }
  wanted_ = kRequestHeaderSize;
}

void RequestStream::Inspect() {
  if (held_[0] == kQueryExtension) {
    InspectExtensionQuery();
  } else {
    InspectControlRequest();
  }
}

void RequestStream::InspectExtensionQuery() {
  constexpr std::size_t kNameOffset = 8;
  if (held_.size() < kNameOffset) {
    return;
  }
  const std::size_t name_size = Get16(held_, 4, conversation_.big_endian);
  const std::string_view name(reinterpret_cast<const char*>(held_.data()) + kNameOffset,
                              std::min(name_size, held_.size() - kNameOffset));
  if (name == kExtensionName) {
    Expect(Conversation::Rewrite::kExtensionPresent);
  } else if (std::ranges::find(kHiddenExtensions, name) != std::end(kHiddenExtensions)) {
    Expect(Conversation::Rewrite::kExtensionAbsent);
  }
}

// An invalid request of the extension is forwarded unchanged. The server does not know the opcode and sends an error.
void RequestStream::InspectControlRequest() {
  if (held_[1] == kMinorIsConsoleActive && held_.size() == kConsoleRequestSize) {
    ++state_.console_questions;
    Expect(Conversation::Rewrite::kConsoleActive);
  } else if (held_[1] == kMinorClaimUserSession && held_.size() == kClaimRequestSize) {
    state_.last_user = Get32(held_, 4, conversation_.big_endian);
    ++state_.claims;
    Expect(Conversation::Rewrite::kGrant);
  } else {
    return;
  }
  const auto length = std::uint8_t{1};
  held_ = conversation_.big_endian ? Bytes{kGetInputFocus, 0, 0, length} : Bytes{kGetInputFocus, 0, length, 0};
}

void RequestStream::Expect(Conversation::Rewrite rewrite) {
  conversation_.expected.push_back({sequence_, rewrite});
}

void ReplyStream::Feed(std::span<const std::uint8_t> input, Bytes& output) {
  while (Collect(input, pass_left_, held_, wanted_, output)) {
    if (set_up_) {
      OnPacket(output);
    } else {
      OnSetup(output);
    }
  }
}

void ReplyStream::OnSetup(Bytes& output) {
  const bool accepted = held_[0] == kSetupSuccess;
  const std::uint64_t size = kServerSetupSize + std::uint64_t{4} * Get16(held_, 6, conversation_.big_endian);
  pass_left_ = Release(held_, accepted ? size : kForEver, output);
  set_up_ = true;
  wanted_ = kPacketSize;
}

void ReplyStream::OnPacket(Bytes& output) {
  const std::uint8_t type = held_[0];
  const bool has_extra = type == kReplyType || (type & ~kSentEventBit) == kGenericEventType;
  const std::uint64_t extra = has_extra ? std::uint64_t{4} * Get32(held_, 4, conversation_.big_endian) : 0;
  auto& expected = conversation_.expected;
  if ((type == kReplyType || type == kErrorType) && !expected.empty() &&
      expected.front().sequence == Get16(held_, 2, conversation_.big_endian)) {
    if (type == kReplyType) {
      Rewrite(expected.front().rewrite);
    }
    expected.pop_front();
  }
  pass_left_ = Release(held_, kPacketSize + extra, output);
}

// The first 8 bytes are kept: reply type, sequence number and length.
void ReplyStream::Rewrite(Conversation::Rewrite rewrite) {
  std::fill(held_.begin() + 8, held_.end(), std::uint8_t{0});
  const auto set_flag = [this](bool flag) { held_[conversation_.big_endian ? 11 : 8] = flag ? 1 : 0; };
  switch (rewrite) {
    case Conversation::Rewrite::kExtensionPresent:
      held_[8] = 1;
      held_[9] = kMajorOpcode;
      break;
    case Conversation::Rewrite::kExtensionAbsent:
      break;
    case Conversation::Rewrite::kConsoleActive:
      held_[1] = 0;
      set_flag(state_.console_active);
      break;
    case Conversation::Rewrite::kGrant:
      held_[1] = 0;
      set_flag(state_.grant);
      break;
  }
}

}  // namespace qel::control_extension
