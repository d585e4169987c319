#include "tools_gate/message_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "gate_bytes.h"
#include "tools_gate/message_composer.h"

namespace qel {
namespace {

// The tests of the messages check the bytes of composed buffers. The session tests read long buffers.

TEST(MessageBufferTest, RefusesWhatDoesNotFit) {
  MessageComposer never(0xFFFFFFFB);
  never.PutText("x", 1);
  EXPECT_TRUE(never.Result() == kBbNoMemory && !never.IsStarted());
  const std::byte byte{7};  // the composer must not read after this byte
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

TEST(MessageBufferTest, ChecksReceivedBytes) {
  struct Case {
    const char* name;
    GateBytes bytes;
    std::uint32_t prefix;
    int result;
    bool at_next = false;  // the result is that of the second field
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
           {"bytes behind the block", GateBytes().U32({12, 0x1000, 0, 0, 1, 0, 7, 7, 7, 7}), 0, kBbEnd, true},
           {"second index wrong", GateBytes().U32({24, 0x1000, 0, 0, 1, 0, 0, 1, 2}), 0, kBbBadIndex, true},
           {"second header cut", GateBytes().U32({16, 0x1000, 0, 0, 1, 0, 0}), 0, kBbOutOfBounds, true},
       }) {
    MessageBuffer reader;
    EXPECT_EQ(bbAttach(reader, c.bytes, c.prefix), c.at_next ? kBbSuccess : c.result) << c.name;
    for (int times = 0; c.at_next && times < 2; ++times) {
      EXPECT_EQ(bbNext(reader), c.result) << c.name;
    }
  }
}

}  // namespace
}  // namespace qel
