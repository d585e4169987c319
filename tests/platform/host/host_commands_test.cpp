#include "host/host_commands.h"

#include <gtest/gtest.h>

#include "host/command_queue.h"
#include "messages.h"

namespace qel::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary

TEST(HostCommands, HaveTheseBytes) {
  struct Case {
    const char* name;
    HostCommand command;
    Bytes expected;
  };
  const Bytes fields =
      FieldBuffer({{0x200B, TextBytes("/bin/app")}, {0x2016, TextBytes("a")}, {0x2016, TextBytes("b")}});
  const Bytes hide =
      FieldBuffer({{0x2006, Words({5, 6})}, {0x200F, Words({9, 0})}, {0x2010, Words({1})}, {0x2011, Words({2})}});
  const Bytes list = FieldBuffer({{0x2006, Words({5, 6})}});
  const auto size = [](const Bytes& bytes) { return static_cast<std::uint32_t>(bytes.size()); };
  const Case cases[] = {
      {"reset", ResetCommand(), Words({1, 2, 0, 0, 0})},
      {"quit by force", QuitCommand(77, Force::kYes), Words({107, 2, 0, 0x20, 4, 77})},
      {"hide one", HideOneCommand(5), Words({108, 2, 0, 0, 4, 5})},
      {"activate a window", ActivateWindowCommand(0xABC), Words({111, 2, 0, 0, 4, 0xABC})},
      {"hide", HideCommand({5, 6}, {9}, 1, 2), Join({Words({108, 2, 0, 0, 16 + size(hide), 5, 0, 0, 36}), hide})},
      {"activate", ActivateAppsCommand({5, 6}), Join({Words({109, 2, 0, 0, 16 + size(list), 5, 0, 0, 36}), list})},
      {"start, fixed", *StartCommand(StartLayout::kFixed, "/bin/app", {"a"}),
       Join({Words({106, 2, 0, 0, 1044}), Text16("/bin/app"), Text16("a")})},
      {"start, fields", *StartCommand(StartLayout::kFields, "/bin/app", {"a", "b"}),
       Join({Words({106, 2, 0, 0, 4 + size(fields), UINT32_MAX}), fields})},
      {"start, fields behind", *StartCommand(StartLayout::kFieldsBehindFixed, "/bin/app", {"a", "b"}),
       Join({Words({106, 2, 0, 0, 1044 + size(fields)}), Text16("/bin/app"), Text16("a"), fields})},
  };
  for (const Case& c : cases) EXPECT_EQ(c.command.block, c.expected) << c.name;
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
