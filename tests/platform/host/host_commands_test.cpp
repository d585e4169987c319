#include "host/host_commands.h"

#include <gtest/gtest.h>

#include "host/command_queue.h"
#include "messages.h"

namespace qel::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary

// Whole sessions try every command; the agent reads all of it but some of the words in front of a list.
TEST(HostCommands, AListStandsBehindItsFirstItem) {
  const Bytes fields =
      FieldBuffer({{0x2006, Words({5, 6})}, {0x200F, Words({9, 0})}, {0x2010, Words({1})}, {0x2011, Words({2})}});
  const auto body = static_cast<std::uint32_t>(16 + fields.size());
  EXPECT_EQ(HideCommand({5, 6}, {9}, 1, 2).block, Join({Words({108, 2, 0, 0, body, 5, 0, 0, 36}), fields}));
}

TEST(HostCommands, StartsThatDoNotFitTheFixedFieldsAreRefused) {
  EXPECT_FALSE(StartCommand(StartLayout::kFixed, "/bin/app", {"a", "b"}));
  EXPECT_FALSE(StartCommand(StartLayout::kFixed, std::string(262, 'x'), {}));
  EXPECT_TRUE(StartCommand(StartLayout::kFixed, std::string(261, 'x'), {}));
}

TEST(CommandQueue, KeepsToTheRoomAndNotesWrongFetches) {
  CommandQueue queue;
  queue.Push(RawCommand(Bytes(4096, 1)));
  EXPECT_EQ(queue.Serve({false, 4096}).bytes.size(), 4096U);  // exactly fits
  EXPECT_NE(queue.Serve({true, 100}).violation, "");          // none was announced

  HostCommand lying = RawCommand(Bytes(64, 2));
  lying.announced_size = UINT32_MAX;
  queue.Push(lying);
  EXPECT_EQ(LoadU32(queue.Serve({false, 4096}).bytes, 20), UINT32_MAX);
  EXPECT_EQ(queue.Waiting(), 1U);
  const FetchReply second = queue.Serve({true, 10});
  EXPECT_EQ(second.bytes.size(), 10U);
  EXPECT_NE(second.violation, "");

  queue.Push(RawCommand(Bytes(5000, 3)));
  queue.Push(ResetCommand());
  queue.Serve({false, 4096});
  const FetchReply after = queue.Serve({false, 4096});  // the announced one was passed over
  EXPECT_NE(after.remark, "");
  EXPECT_EQ(LoadU32(after.bytes, 0), 1U);
}

}  // namespace
}  // namespace qel::host
