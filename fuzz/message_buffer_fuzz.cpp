// Reads any input as a message buffer, and the data of its fields as inner message buffers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "tools_gate/message_buffer.h"

namespace {

unsigned Walk(std::span<const std::byte> bytes, std::uint32_t prefix_size, int depth) {
  qel::MessageBuffer buffer;
  unsigned sum = 0;
  int result = qel::bbAttach(buffer, bytes, prefix_size);
  for (; result == qel::kBbSuccess; result = qel::bbNext(buffer)) {
    const std::span<const std::byte> data = qel::bbFieldData(buffer);
    if (data.size() != qel::bbFieldLength(buffer)) {
      std::abort();
    }
    for (const std::byte byte : data) {
      sum += std::to_integer<unsigned>(byte);
    }
    sum += qel::bbFieldTag(buffer);
    if (depth > 0) {
      sum += Walk(data, 0, depth - 1);
    }
  }
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  volatile unsigned sum = 0;
  for (const std::uint32_t prefix_size : {0U, 20U, 36U}) {
    sum = Walk(std::as_bytes(std::span(data, size)), prefix_size, 3);
  }
  static_cast<void>(sum);
  return 0;
}
