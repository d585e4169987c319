#include "tools_gate/message_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "tools_gate/little_endian.h"

namespace qel {
namespace {

constexpr std::uint32_t kMagicOffset = 4;    // in the block header
constexpr std::uint32_t kTagOffset = 4;      // in a field
constexpr std::uint32_t kIndexOffset = 8;    // in a field
constexpr std::uint32_t kFirstCapacity = 2;  // capacities are powers of two from here on

std::byte* BlockHeader(const MessageBuffer& buffer) {
  return buffer.data + buffer.prefix_size;
}

std::uint32_t PayloadSize(const MessageBuffer& buffer) {
  return LoadU32(BlockHeader(buffer));
}

// The offset after the last field. 64 bits, because a received payload size can have any value.
std::uint64_t BlockEnd(const MessageBuffer& buffer) {
  return std::uint64_t{buffer.prefix_size} + kBbHeaderSize + PayloadSize(buffer);
}

// Gives the buffer `needed` bytes, or leaves it as it was.
bool MakeRoom(MessageBuffer& buffer, std::uint64_t needed) {
  if (needed <= buffer.capacity) {
    return true;
  }
  if (buffer.caller_owned) {
    return false;
  }
  std::uint64_t capacity = std::max(buffer.capacity, kFirstCapacity);
  while (capacity < needed) {
    capacity *= 2;
  }
  const bool countable = capacity <= std::numeric_limits<std::uint32_t>::max();
  auto* const data = countable ? static_cast<std::byte*>(std::realloc(buffer.data, capacity)) : nullptr;
  if (data == nullptr) {
    return false;
  }
  buffer.data = data;
  buffer.capacity = static_cast<std::uint32_t>(capacity);
  return true;
}

// Checks the field at the current position.
int CheckField(const MessageBuffer& buffer) {
  const std::uint64_t end = BlockEnd(buffer);
  const std::uint64_t position = buffer.position;
  if (end > buffer.capacity) {
    return kBbOutOfBounds;
  }
  if (position == end) {
    return kBbEnd;
  }
  if (position > end) {
    return kBbBeyondEnd;
  }
  if (end - position < kBbFieldHeaderSize) {
    return kBbOutOfBounds;  // too short for a field header
  }
  if (LoadU32(buffer.data + position + kIndexOffset) != buffer.index) {
    return kBbBadIndex;
  }
  return position + kBbFieldHeaderSize + bbFieldLength(buffer) > end ? kBbOutOfBounds : kBbSuccess;
}

}  // namespace

MessageBuffer::~MessageBuffer() {
  bbFree(*this);
}

int bbCompose(MessageBuffer& buffer, std::uint32_t prefix_size) {
  bbFree(buffer);
  if (!MakeRoom(buffer, std::uint64_t{prefix_size} + kBbHeaderSize)) {
    return kBbNoMemory;
  }
  buffer.index = 0;
  buffer.prefix_size = prefix_size;
  buffer.position = prefix_size + kBbHeaderSize;
  std::byte* const header = BlockHeader(buffer);
  StoreU32(header, 0);
  StoreU32(header + kMagicOffset, kBbMagic);
  StoreU32(header + 8, 0);
  return kBbSuccess;
}

int bbPut(MessageBuffer& buffer, const void* data, std::uint32_t length, std::uint32_t tag) {
  if (!MakeRoom(buffer, std::uint64_t{buffer.position} + kBbFieldHeaderSize + length)) {
    return kBbNoMemory;
  }
  std::byte* const field = buffer.data + buffer.position;
  StoreU32(field, length);
  StoreU32(field + kTagOffset, tag);
  StoreU32(field + kIndexOffset, buffer.index);
  ++buffer.index;
  if (data != nullptr && length != 0) {
    std::memcpy(field + kBbFieldHeaderSize, data, length);
  }
  const std::uint32_t size = kBbFieldHeaderSize + length;
  buffer.position += size;
  StoreU32(BlockHeader(buffer), PayloadSize(buffer) + size);
  return kBbSuccess;
}

std::byte* bbData(const MessageBuffer& buffer) {
  return buffer.data;
}

std::uint32_t bbSize(const MessageBuffer& buffer) {
  return static_cast<std::uint32_t>(BlockEnd(buffer));
}

void bbFree(MessageBuffer& buffer) {
  if (!buffer.caller_owned) {
    std::free(buffer.data);
  }
  buffer.data = nullptr;
  buffer.capacity = 0;
  buffer.caller_owned = false;
}

int bbAttach(MessageBuffer& buffer, std::span<const std::byte> received, std::uint32_t prefix_size) {
  constexpr std::size_t kMaxCapacity = std::numeric_limits<std::uint32_t>::max();
  const std::uint64_t first_field = std::uint64_t{prefix_size} + kBbHeaderSize;
  const std::size_t capacity = std::min(received.size(), kMaxCapacity);
  bbFree(buffer);
  if (capacity < first_field) {
    return kBbBadHeader;
  }
  buffer.index = 0;
  buffer.prefix_size = prefix_size;
  buffer.position = static_cast<std::uint32_t>(first_field);
  buffer.data = const_cast<std::byte*>(received.data());  // reading never writes
  buffer.capacity = static_cast<std::uint32_t>(capacity);
  buffer.caller_owned = true;
  const std::uint32_t magic = LoadU32(BlockHeader(buffer) + kMagicOffset);
  if (magic != kBbMagic && magic != kBbMagicAlternative) {
    return kBbBadHeader;
  }
  return CheckField(buffer);
}

int bbNext(MessageBuffer& buffer) {
  // Without a valid current field its length, and so the next position, is not known.
  if (const int current = CheckField(buffer); current != kBbSuccess) {
    return current;
  }
  buffer.position += kBbFieldHeaderSize + bbFieldLength(buffer);
  ++buffer.index;
  return CheckField(buffer);
}

std::uint32_t bbFieldLength(const MessageBuffer& buffer) {
  return LoadU32(buffer.data + buffer.position);
}

std::uint32_t bbFieldTag(const MessageBuffer& buffer) {
  return LoadU32(buffer.data + buffer.position + kTagOffset);
}

std::span<const std::byte> bbFieldData(const MessageBuffer& buffer) {
  return {buffer.data + buffer.position + kBbFieldHeaderSize, bbFieldLength(buffer)};
}

}  // namespace qel
