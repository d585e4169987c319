#include "tools_gate/message_composer.h"

#include <cstring>
#include <limits>

#include "tools_gate/little_endian.h"

namespace qel {

MessageComposer::MessageComposer(std::uint32_t prefix_size) : result_(bbCompose(buffer_, prefix_size)) {
  if (result_ == kBbSuccess) {
    std::memset(bbData(buffer_), 0, prefix_size);
  }
}

void MessageComposer::Put(std::span<const std::byte> data, std::uint32_t tag) {
  if (result_ != kBbSuccess) {
    return;
  }
  const bool fits = data.size() <= std::numeric_limits<std::uint32_t>::max();
  result_ = fits ? bbPut(buffer_, data.data(), static_cast<std::uint32_t>(data.size()), tag) : kBbNoMemory;
}

void MessageComposer::Put(const MessageComposer& inner, std::uint32_t tag) {
  if (inner.result_ == kBbSuccess) {
    Put(inner.Bytes(), tag);
  } else if (result_ == kBbSuccess) {
    result_ = inner.result_;
  }
}

void MessageComposer::PutText(std::string_view text, std::uint32_t tag) {
  Put(std::as_bytes(std::span(text)), tag);
}

void MessageComposer::PutNumbers(std::initializer_list<std::uint32_t> numbers, std::uint32_t tag) {
  if (result_ != kBbSuccess) {
    return;
  }
  const std::size_t size = numbers.size() * sizeof(std::uint32_t);
  result_ = bbPut(buffer_, nullptr, static_cast<std::uint32_t>(size), tag);
  if (result_ != kBbSuccess) {
    return;
  }
  std::byte* place = bbData(buffer_) + buffer_.position - size;
  for (const std::uint32_t number : numbers) {
    StoreU32(place, number);
    place += sizeof number;
  }
}

}  // namespace qel
