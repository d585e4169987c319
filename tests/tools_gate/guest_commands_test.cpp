#include "tools_gate/guest_commands.h"

#include <gtest/gtest.h>

#include "gate_bytes.h"
#include "support/log_capture.h"

namespace qel {
namespace {

// Collects what is sent.
class GuestCommandsTest : public testing::Test {
 protected:
  GuestCommandsTest() { setenv("LC_ALL", "C.UTF-8", 1); }

  bool Submit(TgRequest& request) {
    EXPECT_EQ(request.code, 0x8302U);
    EXPECT_EQ(request.status, 0U);
    EXPECT_TRUE(request.inline_data.empty());
    EXPECT_EQ(request.buffers.size(), 2U);
    const TgBuffer& block = request.buffers[0];
    const TgBuffer& reply = request.buffers[1];
    EXPECT_FALSE(block.writable);
    EXPECT_TRUE(reply.writable);
    block_ = Copied({block.data, block.size});
    reply_size_ = reply.size;
    EXPECT_EQ(Copied({reply.data, reply.size}), std::vector<std::byte>(reply.size));
    request.status = status_;
    return submitted_;
  }

  void ExpectSent(std::size_t reply_size, const std::vector<std::byte>& block) {
    EXPECT_EQ(reply_size_, reply_size);
    EXPECT_EQ(block_, block);
  }

  test::LogCapture log_;
  bool submitted_ = true;
  std::uint32_t status_ = 0;
  std::vector<std::byte> block_;
  std::size_t reply_size_ = 0;
  GuestCommands commands_{[this](TgRequest& request) { return Submit(request); }};
};

IconImage Pixels(std::uint32_t width, std::uint32_t height, std::byte value) {
  return {.bytes = std::vector<std::byte>(std::size_t{4} * width * height, value), .height = height, .width = width};
}

TEST_F(GuestCommandsTest, FixedBlocks) {
  commands_.GuestCmdToolState(true);
  ExpectSent(20, GateBytes().U32({100, 2, 0, 0, 0}));
  commands_.GuestCmdToolState(false);
  ExpectSent(20, GateBytes().U32({101, 2, 0, 0, 0}));
  commands_.GuestCmdFinishEnum();
  ExpectSent(20, GateBytes().U32({113, 2, 0, 0, 0}));
  commands_.GuestCmdRmvRun(77, 0x1A0000C);
  ExpectSent(44, GateBytes().U32({105, 2, 0, 0, 24, 77, 0, 0, 0, 0x1A0000C, 0}));
  commands_.GuestCmdWindowTitle(0xFFFFFFFF, 78, "title");
  ExpectSent(566, GateBytes().U32({112, 2, 0, 0, 546, 78, 0, 0, 0, 0xFFFFFFFF, 0}).Field("title"));
  commands_.GuestCmdRmvRunByPath(79, std::string(300, 'p'));  // cut to the field, without a terminator
  ExpectSent(558, GateBytes().U32({114, 2, 0, 0, 538, 79, 0, 0, 0}).Field(std::string(261, 'p')));
  EXPECT_TRUE(log_.Contains("Remove app: pid=77 wnd=1a0000c"));
  EXPECT_TRUE(log_.Contains("Remove app: pid=79 path='" + std::string(300, 'p') + "'"));
}

TEST_F(GuestCommandsTest, RunningApplications) {
  struct Case {
    IconImage large;
    IconImage small;
    std::uint32_t flags;
  };
  IconImage file = Pixels(1, 1, std::byte{9});
  file.bytes.resize(7);
  file.width = 7;
  file.argb = false;
  const IconImage pixels = Pixels(3, 2, std::byte{5});
  const IconImage small = Pixels(16, 16, std::byte{6});
  for (const Case& c : {Case{{}, {}, 0}, Case{pixels, {}, 0}, Case{pixels, small, 2}, Case{file, {}, 0x400},
                        Case{{}, small, 2}, Case{file, small, 0x402}}) {
    commands_.GuestCmdAddRun(0x600001, 4711, "editor", "/usr/bin/editor", "a.txt", c.large, c.small);
    GateBytes expected;
    expected.U32({104, 2, 0, 0, 0, 4711, 0, 0, 0, c.flags}).Field("editor").Field("/usr/bin/editor");
    expected.U32({0x600001, 0}).Field("a.txt").U32({c.large.width, c.large.height}).Raw(c.large.bytes);
    if (!c.small.IsEmpty()) {
      expected.U32({16, 16}).Raw(c.small.bytes);
    }
    EXPECT_EQ(block_, expected.Get()) << c.flags;
    EXPECT_EQ(reply_size_, 1622U);
  }
  EXPECT_EQ(log_.Texts().at(1), "Running app: pid=4711 name='editor' path='/usr/bin/editor' title='a.txt' icon(3x2)");

  commands_.GuestCmdUpdateAppIcon(0x600001, 4711, pixels);
  ExpectSent(56, GateBytes().U32({137, 2, 0, 0, 60, 4711, 0, 0, 0, 0, 0x600001, 0, 3, 2}).Raw(pixels.bytes));
}

TEST_F(GuestCommandsTest, HiddenWindows) {
  const std::uint32_t windows[] = {30, 10};
  commands_.GuestCmdHiddenWindows(0xA, 0xB, windows);
  const auto start = [](std::uint32_t payload) {
    return GateBytes()
        .U32({108, 2, 0, 0, payload + 28, 0, 0, 0, 36, payload, 0x1000, 0})
        .U32({4, 0x2010, 0, 0xA, 4, 0x2011, 1, 0xB});
  };
  ExpectSent(20, start(60).U32({16, 0x200F, 2, 30, 0, 10, 0}));
  commands_.GuestCmdHiddenWindows(0xA, 0xB, {});
  ExpectSent(20, start(44).U32({0, 0x200F, 2}));
}

TEST_F(GuestCommandsTest, ApplicationsMenu) {
  commands_.GuestCmdAppMenu({});
  ExpectSent(20, GateBytes().U32({125, 2, 0, 0x810, 12, 0, 0x1000, 0}));

  const std::byte icon[] = {std::byte{1}, std::byte{2}, std::byte{3}};
  const AppMenuItem items[] = {{"/a.desktop", "A", "Games", 0x5F000000, icon}, {"/b", "", "", 0, {}}};
  commands_.GuestCmdAppMenu(items);
  GateBytes icon_buffer;
  icon_buffer.U32({64 + 3 + 24, 0x1000, 0, 64, 0x2015, 0, 0, 0, 1}).Zeros(52).U32({3, 0x2016, 1}).Raw(icon);
  GateBytes first;
  first.U32({10, 0x2007, 0}).Text("/a.desktop").U32({1, 0x2003, 1}).Text("A").U32({4, 0x200D, 2, 0x5F000000});
  first.U32({5, 0x2002, 3}).Text("Games").U32({103, 0x2014, 4}).Raw(icon_buffer.Get());
  GateBytes second;
  second.U32({2, 0x2007, 0}).Text("/b").U32({0, 0x2003, 1}).U32({4, 0x200D, 2, 0});
  const auto size = [](const GateBytes& bytes) {
    return static_cast<std::uint32_t>(static_cast<const std::vector<std::byte>&>(bytes).size());
  };
  const std::uint32_t payload = 48 + size(first) + size(second);
  GateBytes expected;
  expected.U32({125, 2, 0, 0x810, 12 + payload, payload, 0x1000, 0});
  expected.U32({12 + size(first), 0x2001, 0, size(first), 0x1000, 0}).Raw(first.Get());
  expected.U32({12 + size(second), 0x2001, 1, size(second), 0x1000, 0}).Raw(second.Get());
  ExpectSent(20, expected);
}

TEST_F(GuestCommandsTest, FailuresAreLogged) {
  const test::LogCapture log(0);
  submitted_ = false;
  commands_.GuestCmdHiddenWindows(1, 2, {});
  submitted_ = true;
  status_ = 3;
  commands_.GuestCmdAppMenu({});
  GuestCommands().GuestCmdFinishEnum();  // the device handle is not open
  EXPECT_EQ(log.Texts(),
            (std::vector<std::string>{"Error: Failed to send to host list of hidden windows",
                                      "Error: Failed to send AppMenu to host", "Error: GuestCmdFinishEnum() failed"}));
}

}  // namespace
}  // namespace qel
