// Message buffers: any input is read and compared with a simple reader, and composed buffers are read again.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "support/fuzzed_data.h"
#include "tools_gate/message_buffer.h"

namespace {

using qel::fuzz::Expect;

struct Field {
  std::uint32_t tag;
  std::vector<std::byte> data;
  bool operator==(const Field&) const = default;
};

struct Content {
  std::vector<Field> fields;
  int result;  // the result of the last step
  bool operator==(const Content&) const = default;
};

Content ReadWithLibrary(std::span<const std::byte> bytes, std::uint32_t prefix_size) {
  Content content;
  qel::MessageBuffer buffer;
  content.result = qel::bbAttach(buffer, bytes, prefix_size);
  while (content.result == qel::kBbSuccess) {
    const std::span<const std::byte> data = qel::bbFieldData(buffer);
    content.fields.push_back({qel::bbFieldTag(buffer), {data.begin(), data.end()}});
    content.result = qel::bbNext(buffer);
  }
  if (content.result != qel::kBbBadHeader) {
    Expect(qel::bbNext(buffer) == content.result, "the end is the same when it is asked for again");
  }
  return content;
}

// The same, written for clarity: it consumes the bytes from the front.
Content ReadPlainly(std::span<const std::byte> bytes, std::uint32_t prefix_size) {
  const auto number = [&bytes](std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
  };
  if (bytes.size() < prefix_size || bytes.size() - prefix_size < 12) {
    return {{}, qel::kBbBadHeader};
  }
  bytes = bytes.subspan(prefix_size);
  if (number(4) != qel::kBbMagic && number(4) != qel::kBbMagicAlternative) {
    return {{}, qel::kBbBadHeader};
  }
  if (number(0) > bytes.size() - 12) {
    return {{}, qel::kBbOutOfBounds};
  }
  bytes = bytes.subspan(12, number(0));
  std::vector<Field> fields;
  while (!bytes.empty()) {
    if (bytes.size() < 12) {
      return {fields, qel::kBbOutOfBounds};
    }
    if (number(8) != fields.size()) {
      return {fields, qel::kBbBadIndex};
    }
    if (number(0) > bytes.size() - 12) {
      return {fields, qel::kBbOutOfBounds};
    }
    const auto data = bytes.subspan(12, number(0));
    fields.push_back({number(4), {data.begin(), data.end()}});
    bytes = bytes.subspan(12 + data.size());
  }
  return {fields, qel::kBbEnd};
}

void ReadAnyBytes(std::span<const std::byte> bytes, int depth) {
  for (const std::uint32_t prefix_size : {0U, 20U, 36U, 0xFFFFFFF8U}) {
    const Content content = ReadWithLibrary(bytes, prefix_size);
    Expect(content == ReadPlainly(bytes, prefix_size), "both readers find the same fields and the same end");
    for (const Field& field : content.fields) {
      if (depth > 0) {
        ReadAnyBytes(field.data, depth - 1);
      }
    }
  }
}

void ComposeAndRead(qel::fuzz::FuzzedData input) {
  const std::uint32_t prefix_size = input.Byte();
  std::vector<Field> fields;
  qel::MessageBuffer buffer;
  Expect(qel::bbCompose(buffer, prefix_size) == qel::kBbSuccess, "a buffer can be composed");
  std::memset(qel::bbData(buffer), 0x5A, prefix_size);
  while (!input.IsEmpty()) {
    const std::uint32_t tag = input.Number();
    const auto data = std::as_bytes(input.Bytes(input.Number(2) % 600));
    fields.push_back({tag, {data.begin(), data.end()}});
    Expect(qel::bbPut(buffer, data.data(), static_cast<std::uint32_t>(data.size()), tag) == qel::kBbSuccess,
           "a field can be added");
  }
  const std::vector<std::byte> bytes(qel::bbData(buffer), qel::bbData(buffer) + qel::bbSize(buffer));
  Expect(buffer.capacity >= bytes.size() && (buffer.capacity & (buffer.capacity - 1)) == 0,
         "the capacity is a power of two");
  const Content content = ReadWithLibrary(bytes, prefix_size);
  Expect(content == Content{fields, qel::kBbEnd}, "a composed buffer contains what was put into it");
  for (std::uint32_t i = 0; i < prefix_size; ++i) {
    Expect(bytes[i] == std::byte{0x5A}, "the prefix is not touched");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ReadAnyBytes(std::as_bytes(std::span(data, size)), 2);
  ComposeAndRead({data, size});
  return 0;
}
