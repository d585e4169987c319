#include "tools_gate/message_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>

#include "gate_bytes.h"
#include "tools_gate/message_composer.h"

namespace qel {
namespace {

// The bytes of composed buffers are asserted with the messages that carry them.

TEST(MessageBufferTest, RefusesWhatDoesNotFit) {
  MessageComposer never(0xFFFFFFFB);
  never.PutText("x", 1);
  EXPECT_TRUE(never.Result() == kBbNoMemory && !never.IsStarted());

  const std::byte byte{7};  // no more of it is looked at
  constexpr std::uint64_t kUncountable = std::min<std::uint64_t>(std::uint64_t{1} << 32, SIZE_MAX);
  for (const auto size : {std::size_t{0xFFFFFFFC}, static_cast<std::size_t>(kUncountable)}) {
    MessageComposer composer(0);
    composer.PutText("x", 1);
    const auto before = Copied(composer.Bytes());
    composer.Put({&byte, size}, 2);
    composer.PutText("not put any more", 3);
    EXPECT_TRUE(composer.Result() == kBbNoMemory && composer.IsStarted()) << size;
    EXPECT_EQ(Copied(composer.Bytes()), before);
  }
}

TEST(MessageBufferTest, GrowsByDoublingAndReadsBack) {
  MessageBuffer buffer;
  ASSERT_EQ(bbCompose(buffer, 20), kBbSuccess);
  for (std::uint32_t i = 0; i < 100; ++i) {
    ASSERT_EQ(bbPut(buffer, &i, 1, 1000 + i), kBbSuccess);
    EXPECT_EQ(buffer.capacity, std::bit_ceil(bbSize(buffer)));
  }
  MessageBuffer reader;
  int result = bbAttach(reader, {bbData(buffer), bbSize(buffer)}, 20);
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
  for (const Case& c : std::initializer_list<Case>{
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
       }) {
    MessageBuffer reader;
    EXPECT_EQ(bbAttach(reader, c.bytes, c.prefix), c.attached) << c.name;
    if (c.attached == kBbSuccess) {
      EXPECT_EQ(bbNext(reader), c.next) << c.name;
      EXPECT_EQ(bbNext(reader), c.next) << c.name << ", asked again";
    }
  }
}

}  // namespace
}  // namespace qel
