#include "tools_gate/guest_commands.h"

#include <gtest/gtest.h>

#include "gate_bytes.h"
#include "support/log_capture.h"

namespace qel {
namespace {

class GuestCommandsTest : public testing::Test {
 protected:
  GuestCommandsTest() { setenv("LC_ALL", "C.UTF-8", 1); }

  void ExpectSent(std::size_t reply_size, const GateBytes& block) {
    EXPECT_EQ(reply_, GateBytes().Zeros(reply_size));
    EXPECT_EQ(block_, block);
  }

  const test::LogCapture log_;
  GateBytes block_;
  GateBytes reply_;
  GuestCommands commands_{[this](const TgRequest& request) {
    EXPECT_EQ(request.code, 0x8302U);
    EXPECT_EQ(request.inline_data.size() + request.buffers.size(), 2U);
    const TgBuffer& block = request.buffers[0];
    const TgBuffer& reply = request.buffers[1];
    EXPECT_TRUE(!block.writable && reply.writable);
    block_ = Copied({block.data, block.size});
    reply_ = Copied({reply.data, reply.size});
    return true;
  }};
};

// In the session tests, the host stand-in checks the other fixed blocks.
TEST_F(GuestCommandsTest, FixedBlocks) {
  commands_.GuestCmdRmvRun(77, 0x1A0000C);
  ExpectSent(44, GateBytes().U32({105, 2, 0, 0, 24, 77, 0, 0, 0, 0x1A0000C, 0}));
  commands_.GuestCmdRmvRunByPath(79, std::string(300, 'p'));  // cut to the size of the field, without a terminator
  ExpectSent(558, GateBytes().U32({114, 2, 0, 0, 538, 79, 0, 0, 0}).Field(std::string(261, 'p')));

  const IconImage file{.bytes = std::vector<std::byte>(7, std::byte{9}), .height = 1, .width = 7, .argb = false};
  const IconImage pixels{.bytes = std::vector<std::byte>(1024, std::byte{6}), .height = 8, .width = 32};
  commands_.GuestCmdAddRun(0x600001, 4711, "editor", "/usr/bin/editor", "a.txt", file, pixels);
  GateBytes expected = GateBytes().U32({104, 2, 0, 0, 0, 4711, 0, 0, 0, 0x402});
  expected.Field("editor").Field("/usr/bin/editor").U32({0x600001, 0}).Field("a.txt");
  ExpectSent(1622, expected.U32({7, 1}).Raw(file.bytes).U32({16, 16}).Raw(pixels.bytes));
  commands_.GuestCmdUpdateAppIcon(0x600001, 4711, pixels);
  ExpectSent(56, GateBytes().U32({137, 2, 0, 0, 1060, 4711, 0, 0, 0, 0, 0x600001, 0, 32, 8}).Raw(pixels.bytes));
}

TEST_F(GuestCommandsTest, Lists) {
  commands_.GuestCmdHiddenWindows(8, 9, std::vector<std::uint32_t>{0x600001, 5});
  GateBytes hidden = GateBytes().U32({108, 2, 0, 0, 88, 0, 0, 0, 36, 60, 0x1000, 0});
  ExpectSent(20, hidden.U32({4, 0x2010, 0, 8, 4, 0x2011, 1, 9, 16, 0x200F, 2, 0x600001, 0, 5, 0}));

  commands_.GuestCmdAppMenu({});
  ExpectSent(20, GateBytes().U32({125, 2, 0, 0x810, 12, 0, 0x1000, 0}));
  const std::byte icon[] = {std::byte{1}, std::byte{2}, std::byte{3}};
  commands_.GuestCmdAppMenu(
      std::vector<AppMenuItem>{{.path = "/a", .name = "A", .location = "L/M", .modified = 77, .icon = icon},
                               {.path = "/b", .name = {}, .location = {}, .icon = {}}});
  GateBytes menu = GateBytes().U32({125, 2, 0, 0x810, 275, 263, 0x1000, 0, 185, 0x2001, 0, 173, 0x1000, 0});
  menu.U32({2, 0x2007, 0}).Text("/a").U32({1, 0x2003, 1}).Text("A").U32({4, 0x200D, 2, 77, 3, 0x2002, 3}).Text("L/M");
  menu.U32({103, 0x2014, 4, 91, 0x1000, 0, 64, 0x2015, 0, 0, 0, 1}).Zeros(52).U32({3, 0x2016, 1}).Raw(icon);
  menu.U32({54, 0x2001, 1, 42, 0x1000, 0, 2, 0x2007, 0}).Text("/b").U32({0, 0x2003, 1, 4, 0x200D, 2, 0});
  ExpectSent(20, menu);
}

}  // namespace
}  // namespace qel
