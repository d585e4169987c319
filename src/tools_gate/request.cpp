#include "tools_gate/request.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "tools_gate/little_endian.h"
#include "tools_gate/low_memory.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

// The layout of a request in memory.
constexpr std::size_t kCodeOffset = 0;
constexpr std::size_t kStatusOffset = 4;
constexpr std::size_t kInlineCountOffset = 8;
constexpr std::size_t kBufferCountOffset = 10;
constexpr std::size_t kReservedOffset = 12;
constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kDescriptorSize = 16;
constexpr std::uint32_t kBufferIsWritable = 1;

void StoreDescriptor(std::byte* to, std::uint32_t address, const TgBuffer& buffer) {
  StoreU32(to, address);
  StoreU32(to + 4, 0);
  StoreU32(to + 8, buffer.size);
  StoreU32(to + 12, buffer.writable ? kBufferIsWritable : 0);
}

void Copy(std::byte* to, const std::byte* from, std::size_t size) {
  if (size != 0) {
    std::memcpy(to, from, size);
  }
}

// How many bytes a buffer needs in the staging area, after the request.
std::size_t RoomFor(const TgBuffer& buffer) {
  return buffer.is_inline ? 0 : LowMemory::RoomFor(buffer.size);
}

// One write() of the request's address.
std::uint32_t WriteAddress(int descriptor, const std::byte* request) {
  std::array<std::byte, 4> address{};
  StoreU32(address.data(), LowMemory::AddressOf(request));
  const ssize_t written = write(descriptor, address.data(), address.size());
  if (written == static_cast<ssize_t>(address.size())) {
    return kTgSubmitSuccess;
  }
  return written < 0 && errno == EINTR ? kTgSubmitInterrupted : kTgSubmitFailure;
}

}  // namespace

std::uint32_t TgSubmit(int descriptor, TgRequest& request) {
  constexpr std::size_t kMaxCount = std::numeric_limits<std::uint16_t>::max();
  const std::span<std::byte> inline_data = request.inline_data;
  if (descriptor == 0 || inline_data.size() > kMaxCount || request.buffers.size() > kMaxCount) {
    return kTgSubmitFailure;
  }

  const std::size_t descriptors = kHeaderSize + inline_data.size();
  const std::size_t request_size = (descriptors + request.buffers.size() * kDescriptorSize + 15) / 16 * 16;
  std::size_t size = request_size;
  for (const TgBuffer& buffer : request.buffers) {
    size += RoomFor(buffer);
  }
  const LowMemory memory(size);
  if (!memory) {
    return kTgSubmitFailure;
  }

  std::byte* const place = memory.At(0);
  StoreU32(place + kCodeOffset, request.code);
  StoreU16(place + kInlineCountOffset, static_cast<std::uint16_t>(inline_data.size()));
  StoreU16(place + kBufferCountOffset, static_cast<std::uint16_t>(request.buffers.size()));
  StoreU32(place + kReservedOffset, 0);
  Copy(place + kHeaderSize, inline_data.data(), inline_data.size());
  std::byte* descriptor_place = place + descriptors;
  std::size_t offset = request_size;
  for (const TgBuffer& buffer : request.buffers) {
    const std::byte* const staged = buffer.is_inline ? place + kHeaderSize + (buffer.data - inline_data.data())
                                                     : memory.Stage(offset, buffer.data, buffer.size);
    StoreDescriptor(descriptor_place, LowMemory::AddressOf(staged), buffer);
    descriptor_place += kDescriptorSize;
    offset += RoomFor(buffer);
  }

  TgResubmission resubmission;
  do {
    StoreU32(place + kStatusOffset, kTgStatusSuccess);
    if (const std::uint32_t result = WriteAddress(descriptor, place); result != kTgSubmitSuccess) {
      return result;
    }
    request.status = LoadU32(place + kStatusOffset);
    if (request.status == kTgStatusResubmit && !resubmission.KeepTrying()) {
      return kTgSubmitFailure;
    }
  } while (request.status == kTgStatusResubmit);

  Copy(inline_data.data(), place + kHeaderSize, inline_data.size());
  offset = request_size;
  for (const TgBuffer& buffer : request.buffers) {
    if (buffer.writable && !buffer.is_inline) {
      memory.Unstage(offset, buffer.data, buffer.size);
    }
    offset += RoomFor(buffer);
  }
  return kTgSubmitSuccess;
}

}  // namespace qel
