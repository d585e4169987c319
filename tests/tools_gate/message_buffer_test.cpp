#include "tools_gate/message_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "gate_bytes.h"
#include "tools_gate/message_composer.h"

namespace qel {
namespace {

// The tests of the messages check the bytes of composed buffers, and the samples of the fuzz target "message_buffer"
// check received ones.

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

}  // namespace
}  // namespace qel
