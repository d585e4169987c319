#include "tools_gate/link.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "base/file_descriptor.h"
#include "tools_gate/little_endian.h"

namespace qel {
namespace {

// The sub-header of a service message.
constexpr std::uint32_t kSubHeaderSize = 32;
constexpr std::size_t kRequestLengthOffset = 8;
constexpr std::size_t kReplyLengthOffset = 12;  // in the request: the capacity
constexpr std::size_t kReplyNeededOffset = 16;
constexpr std::size_t kResultOffset = 20;

// Larger messages are never sent inline.
constexpr std::uint32_t kMaxInlineData = 512;

void StoreSubHeader(std::byte* to, std::uint32_t request_length, std::uint32_t reply_capacity) {
  std::memset(to, 0, kSubHeaderSize);
  StoreU32(to, kSubHeaderSize);
  StoreU32(to + kRequestLengthOffset, request_length);
  StoreU32(to + kReplyLengthOffset, reply_capacity);
}

std::int32_t ResultOf(const std::byte* sub_header) {
  return static_cast<std::int32_t>(LoadU32(sub_header + kResultOffset));
}

int Submit(const TgLink& link, TgRequest& request) {
  const std::uint32_t submitted = TgSubmit(link.descriptor, request);
  if (submitted != kTgSubmitSuccess || request.status == kTgStatusFailure) {
    return kTgChannelFailure;
  }
  return request.status == kTgStatusSuccess ? kTgSuccess : kTgRejected;
}

// Asks the device which layout it wants. The request has one sub-header inline and another one in a buffer; a second
// buffer refers to the data after the inline sub-header. A negative result in the inline sub-header means that the
// device wants inline sub-headers from now on.
int ProbeDevice(const TgLink& link) {
  constexpr std::uint32_t kDataSize = 16;
  std::array<std::byte, kSubHeaderSize + kDataSize> inline_data{};
  StoreSubHeader(inline_data.data(), kDataSize, kDataSize);
  std::array<std::byte, kSubHeaderSize> sub_header{};
  StoreSubHeader(sub_header.data(), kDataSize, kDataSize);
  const std::array<TgBuffer, 2> buffers{
      {{.data = sub_header.data(), .size = kSubHeaderSize, .writable = true},
       {.data = inline_data.data() + kSubHeaderSize, .size = kDataSize, .writable = true, .is_inline = true}}};
  TgRequest request{.code = kTgServiceMessage, .inline_data = inline_data, .buffers = buffers};

  TgChannelState& channel = *link.channel;
  const int result = Submit(link, request);
  if (result == kTgRejected) {
    channel.device = TgChannelState::kUnusable;
  }
  if (result == kTgSuccess) {
    channel.device = TgChannelState::kUsable;
    channel.sub_header_in_buffer = channel.sub_header_in_buffer && ResultOf(inline_data.data()) >= 0;
  }
  return result;
}

// TgLink is a plain record that holds its descriptor as a number; 0 means none.
void CloseDescriptor(TgLink& link) {
  const FileDescriptor closed(std::exchange(link.descriptor, 0));
}

int OpenOverDevice(TgLink& link) {
  TgChannelState& channel = *link.channel;
  if (channel.device == TgChannelState::kUnusable) {
    return kTgRejected;
  }
  if (channel.open_device(link.descriptor) != kTgSubmitSuccess) {
    return kTgChannelFailure;
  }
  const int result = channel.device == TgChannelState::kUsable ? kTgSuccess : ProbeDevice(link);
  if (result != kTgSuccess) {
    CloseDescriptor(link);
  }
  return result;
}

int OpenOverHypervisor(TgLink& link, int device_result) {
  TgChannelState& channel = *link.channel;
  if (channel.hypervisor == TgChannelState::kUnusable) {
    return device_result;
  }
  if (channel.hypervisor == TgChannelState::kUnknown) {
    const int result = ProbeHypervisor(channel.call_hypervisor, channel.chunk_size);
    channel.hypervisor = result == kTgSuccess ? TgChannelState::kUsable : TgChannelState::kUnusable;
    return result;
  }
  return kTgSuccess;
}

int SendOverDevice(TgLink& link, std::span<std::byte> data, std::uint32_t request_length, std::uint32_t reply_capacity,
                   std::uint32_t* reply_length) {
  // The sub-header, followed by the data when all is sent inline.
  std::array<std::byte, kSubHeaderSize + kMaxInlineData> header{};
  std::byte* const inline_bytes = header.data() + kSubHeaderSize;
  StoreSubHeader(header.data(), request_length, reply_capacity);
  const TgBuffer sub_header_buffer{.data = header.data(), .size = kSubHeaderSize, .writable = true};
  const TgBuffer data_buffer{
      .data = data.data(), .size = static_cast<std::uint32_t>(data.size()), .writable = reply_capacity != 0};
  const std::array<TgBuffer, 2> buffers{sub_header_buffer, data_buffer};
  const std::size_t data_buffers = data.empty() ? 0 : 1;

  const bool in_buffers = link.channel->sub_header_in_buffer;
  const bool all_inline = !in_buffers && data.size() <= kMaxInlineData;
  TgRequest request{.code = kTgServiceMessage};
  if (in_buffers) {
    request.buffers = std::span(buffers).first(1 + data_buffers);
  } else if (all_inline) {
    std::ranges::copy(data, inline_bytes);
    request.inline_data = std::span(header).first(kSubHeaderSize + data.size());
  } else {
    request.inline_data = std::span(header).first(kSubHeaderSize);
    request.buffers = std::span(buffers).subspan(1, data_buffers);
  }
  if (const int result = Submit(link, request); result != kTgSuccess) {
    return result;
  }

  link.last_status = ResultOf(header.data());
  if (link.last_status < 0) {
    return kTgServiceFailed;
  }
  if (LoadU32(header.data() + kReplyNeededOffset) > reply_capacity) {
    return kTgReplyTooLarge;
  }
  // The host's number may be wrong; the reply cannot be longer than the capacity.
  const std::uint32_t received = std::min(LoadU32(header.data() + kReplyLengthOffset), reply_capacity);
  if (all_inline) {
    std::copy_n(inline_bytes, received, data.begin());
  }
  if (reply_length != nullptr) {
    *reply_length = received;
  }
  return kTgSuccess;
}

int SendOverHypervisorLink(TgLink& link, HypervisorMessage message, std::uint32_t* reply_length) {
  const int result = SendOverHypervisor(link.channel->call_hypervisor, link.channel->chunk_size, message);
  link.last_status = message.state;
  if (result == kTgSuccess && reply_length != nullptr) {
    *reply_length = message.reply_length;
  }
  return result;
}

}  // namespace

TgChannelState& TgProcessChannel() {
  static TgChannelState channel;
  return channel;
}

int TgLinkOpen(TgLink& link) {
  link.last_status = kTgLinkClosed;
  link.kind = kTgDeviceLink;
  int result = OpenOverDevice(link);
  if (result != kTgSuccess) {
    link.kind = kTgHypervisorLink;
    result = OpenOverHypervisor(link, result);
  }
  if (result != kTgSuccess) {
    link.kind = 0;
    return result;
  }
  link.last_status = 0;
  return kTgSuccess;
}

int TgLinkClose(TgLink& link) {
  link.last_status = kTgLinkClosed;
  if (link.kind == kTgDeviceLink && link.descriptor != 0) {
    CloseDescriptor(link);
  }
  link.kind = 0;
  return kTgSuccess;
}

int TgLinkSendMessage(TgLink& link, std::byte* data, std::uint32_t request_length, std::uint32_t reply_capacity,
                      std::uint32_t* reply_length) {
  switch (link.kind) {
    case kTgDeviceLink:
      if (link.descriptor == 0) {
        return kTgNoDescriptor;
      }
      return SendOverDevice(link, {data, std::max(request_length, reply_capacity)}, request_length, reply_capacity,
                            reply_length);
    case kTgHypervisorLink:
      return SendOverHypervisorLink(
          link, {.data = data, .request_length = request_length, .reply_capacity = reply_capacity}, reply_length);
    default:
      return kTgNotOpen;
  }
}

}  // namespace qel
