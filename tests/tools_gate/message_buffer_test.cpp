#include "tools_gate/message_buffer.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "gate_bytes.h"

namespace qel {
namespace {

std::vector<std::byte> Whole(const MessageBuffer& buffer) {
  return Copied({bbData(buffer), bbSize(buffer)});
}

TEST(MessageBufferTest, ComposesFieldsByteForByte) {
  MessageBuffer buffer;
  ASSERT_EQ(bbCompose(buffer, 4), kBbSuccess);
  const MessageBufferOwner owner(buffer);
  std::memset(bbData(buffer), 0xEE, 4);
  ASSERT_EQ(bbPut(buffer, "hello", 5, 0x2191), kBbSuccess);
  ASSERT_EQ(bbPut(buffer, "", 0, 7), kBbSuccess);
  ASSERT_EQ(bbPut(buffer, nullptr, 2, 0x80000001), kBbSuccess);
  std::memcpy(bbData(buffer) + buffer.position - 2, "ab", 2);
  EXPECT_EQ(Whole(buffer), GateBytes()
                               .U32({0xEEEEEEEE, 43, 0x1000, 0, 5, 0x2191, 0})
                               .Text("hello")
                               .U32({0, 7, 1, 2, 0x80000001, 2})
                               .Text("ab")
                               .Get());
}

TEST(MessageBufferTest, RefusesWhatDoesNotFit) {
  MessageBuffer buffer;
  EXPECT_EQ(bbCompose(buffer, 0xFFFFFFFB), kBbNoMemory);
  EXPECT_EQ(bbComposeSized(buffer, 20, 0xFFFFFFEB), kBbNoMemory);

  ASSERT_EQ(bbCompose(buffer, 0), kBbSuccess);
  const MessageBufferOwner owner(buffer);
  ASSERT_EQ(bbPut(buffer, "x", 1, 1), kBbSuccess);
  const auto before = Whole(buffer);
  EXPECT_EQ(bbPut(buffer, nullptr, 0xFFFFFFFC, 2), kBbNoMemory);
  EXPECT_EQ(Whole(buffer), before);

  std::vector<std::byte> place(12 + 12 + 3);
  MessageBuffer inner;
  EXPECT_EQ(bbComposeIn(inner, std::span(place).first(11)), kBbNoMemory);
  ASSERT_EQ(bbComposeIn(inner, place), kBbSuccess);
  EXPECT_EQ(bbPut(inner, "abcd", 4, 1), kBbNoMemory);
  EXPECT_EQ(bbPut(inner, "abc", 3, 1), kBbSuccess);
  EXPECT_EQ(place, GateBytes().U32({15, 0x1000, 0, 3, 1, 0}).Text("abc").Get());
  EXPECT_EQ(bbPut(inner, "", 0, 2), kBbNoMemory);
}

TEST(MessageBufferTest, ReadsBackManyFields) {
  MessageBuffer buffer;
  ASSERT_EQ(bbCompose(buffer, 20), kBbSuccess);
  const MessageBufferOwner owner(buffer);
  for (std::uint32_t i = 0; i < 100; ++i) {
    ASSERT_EQ(bbPut(buffer, &i, 1, 1000 + i), kBbSuccess);
    EXPECT_EQ(std::popcount(buffer.capacity), 1) << "no power of two";
    EXPECT_LT(buffer.capacity / 2, bbSize(buffer));
  }
  const std::vector<std::byte> bytes = Whole(buffer);
  MessageBuffer reader;
  int result = bbAttach(reader, bytes, 20);
  for (std::uint32_t i = 0; i < 100; ++i, result = bbNext(reader)) {
    ASSERT_EQ(result, kBbSuccess);
    EXPECT_EQ(bbFieldTag(reader), 1000 + i);
    EXPECT_EQ(Copied(bbFieldData(reader)), std::vector<std::byte>{static_cast<std::byte>(i)});
  }
  EXPECT_EQ(result, kBbEnd);
}

TEST(MessageBufferTest, JudgesReceivedBytes) {
  struct Case {
    const char* name;
    GateBytes bytes;
    std::uint32_t prefix;
    int attached;
    int next = kBbEnd;
  };
  const Case cases[] = {
      {"nothing", GateBytes(), 0, kBbBadHeader},
      {"one byte short of a header", GateBytes().Zeros(15), 4, kBbBadHeader},
      {"prefix near 4 GiB", GateBytes().U32({0, 0x1000, 0}), 0xFFFFFFF8, kBbBadHeader},
      {"wrong magic", GateBytes().U32({0, 0x1001, 0}), 0, kBbBadHeader},
      {"no fields", GateBytes().U32({9, 0, 0x1000, 0}), 4, kBbEnd},
      {"alternative magic", GateBytes().U32({0, 0xACDCBABA, 0}), 0, kBbEnd},
      {"payload of 4 GiB", GateBytes().U32({0xFFFFFFFF, 0x1000, 0, 0, 1, 0}), 0, kBbOutOfBounds},
      {"field header cut", GateBytes().U32({11, 0x1000, 0, 0, 1}).Zeros(3), 0, kBbOutOfBounds},
      {"field past the block", GateBytes().U32({12, 0x1000, 0, 1, 1, 0}).Zeros(1), 0, kBbOutOfBounds},
      {"first index wrong", GateBytes().U32({12, 0x1000, 0, 0, 1, 1}), 0, kBbBadIndex},
      {"bytes behind the block", GateBytes().U32({12, 0x1000, 0, 0, 1, 0, 7, 7, 7, 7}), 0, kBbSuccess, kBbEnd},
      {"second index wrong", GateBytes().U32({24, 0x1000, 0, 0, 1, 0, 0, 1, 2}), 0, kBbSuccess, kBbBadIndex},
      {"second header cut", GateBytes().U32({16, 0x1000, 0, 0, 1, 0, 0}), 0, kBbSuccess, kBbOutOfBounds},
  };
  for (const Case& c : cases) {
    MessageBuffer reader;
    const std::vector<std::byte>& bytes = c.bytes;
    EXPECT_EQ(bbAttach(reader, bytes, c.prefix), c.attached) << c.name;
    if (c.attached == kBbSuccess) {
      EXPECT_EQ(bbNext(reader), c.next) << c.name;
      EXPECT_EQ(bbNext(reader), c.next) << c.name << ", asked again";
    }
  }
}

}  // namespace
}  // namespace qel
