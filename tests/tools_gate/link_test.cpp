#include "tools_gate/link.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "gate_bytes.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/product_version.h"

namespace qel {
namespace {

// A device that takes requests apart and answers as told.
class LinkTest : public testing::Test {
 protected:
  LinkTest() {
    channel_.open_device = [this](int& descriptor) {
      ++opened_;
      descriptor = open("/dev/null", O_WRONLY | O_CLOEXEC);
      return kTgSubmitSuccess;
    };
    channel_.submit = [this](int, TgRequest& request) {
      Submit(request);
      return write_result_;
    };
    channel_.call_hypervisor = [this](HypervisorRegisters&) {
      ++hypervisor_calls_;
      return false;
    };
  }
  ~LinkTest() override { TgLinkClose(link_); }

  // A buffer's bytes, whether it is writable, and where in the inline data it says that it lies.
  struct SeenBuffer {
    std::vector<std::byte> bytes;
    bool writable = false;
    std::ptrdiff_t inline_offset = -1;
    bool operator==(const SeenBuffer&) const = default;
  };
  struct Seen {
    std::vector<std::byte> inline_data;
    std::vector<SeenBuffer> buffers;
    bool operator==(const Seen&) const = default;
  };

  void Submit(TgRequest& request) {
    EXPECT_EQ(request.code, 0x8050U);
    Seen& seen = seen_.emplace_back(Copied(request.inline_data));
    for (const TgBuffer& buffer : request.buffers) {
      seen.buffers.emplace_back(Copied({buffer.data, buffer.size}), buffer.writable,
                                buffer.is_inline ? buffer.data - request.inline_data.data() : -1);
    }
    request.status = seen_.size() <= statuses_.size() ? statuses_[seen_.size() - 1] : 0;
    if (request.status == 0) {
      std::byte* const header = request.inline_data.empty() ? request.buffers[0].data : request.inline_data.data();
      StoreU32(header + 12, reply_length_);
      StoreU32(header + 16, reply_needed_);
      StoreU32(header + 20, static_cast<std::uint32_t>(result_));
      if (reply_length_ != 0) {
        std::memset(request.buffers.empty() ? header + 32 : request.buffers.back().data, 0xAB, 4);
      }
    }
  }

  // A link that is open, with the probe forgotten.
  void OpenLink(std::int32_t probe_result) {
    result_ = probe_result;
    ASSERT_EQ(TgLinkOpen(link_), kTgSuccess);
    result_ = 0;
    seen_.clear();
  }

  static GateBytes SubHeader(std::uint32_t request, std::uint32_t reply) {
    return GateBytes().U32({32, 0, request, reply, 0, 0, 0, 0});
  }

  std::vector<std::uint32_t> statuses_;  // by submission; 0 after these
  std::uint32_t write_result_ = kTgSubmitSuccess;
  std::int32_t result_ = 0;
  std::uint32_t reply_length_ = 0;
  std::uint32_t reply_needed_ = 0;

  int opened_ = 0;
  int hypervisor_calls_ = 0;
  std::vector<Seen> seen_;
  TgChannelState channel_;
  TgLink link_{.channel = &channel_};
};

TEST_F(LinkTest, ProbesTheDeviceOncePerProcess) {
  ASSERT_EQ(TgLinkOpen(link_), kTgSuccess);
  EXPECT_EQ(link_.last_status, 0);
  EXPECT_EQ(link_.kind, kTgDeviceLink);
  const Seen probe{SubHeader(16, 16).Zeros(16), {{SubHeader(16, 16), true}, {GateBytes().Zeros(16), true, 32}}};
  EXPECT_EQ(seen_, std::vector<Seen>{probe});

  EXPECT_EQ(TgLinkClose(link_), kTgSuccess);
  EXPECT_EQ(TgLinkSendMessage(link_, nullptr, 0, 0), kTgNotOpen);
  ASSERT_EQ(TgLinkOpen(link_), kTgSuccess);
  EXPECT_EQ(seen_.size(), 1U);
}

TEST_F(LinkTest, RemembersWhatIsUnusable) {
  // The device's answer, how often it is opened for two links, and the second link's result: the first one's is the
  // hypervisor's, which is not asked again.
  statuses_ = {5U, kTgStatusFailure, kTgStatusFailure};
  for (const auto& [opened, second] : {std::pair(1, kTgRejected), {2, kTgChannelFailure}}) {
    channel_.device = channel_.hypervisor = TgChannelState::kUnknown;
    opened_ = hypervisor_calls_ = 0;
    EXPECT_EQ(TgLinkOpen(link_), kTgChannelFailure);
    EXPECT_EQ(TgLinkOpen(link_), second);
    EXPECT_EQ(opened_, opened);
    EXPECT_EQ(hypervisor_calls_, 1);
    EXPECT_EQ(link_.kind, 0U);
    EXPECT_EQ(link_.descriptor, 0);
    EXPECT_EQ(link_.last_status, -11);
  }
}

TEST_F(LinkTest, ChoosesTheLayout) {
  struct Case {
    std::int32_t probe_result;
    std::uint32_t request;
    std::uint32_t reply;
    bool inline_header;
    bool inline_data;
  };
  for (const Case& c : {Case{0, 4, 8, false, false}, Case{0, 513, 0, false, false}, Case{0, 0, 0, false, false},
                        Case{-1, 512, 4, true, true}, Case{-1, 4, 513, true, false}, Case{-1, 513, 0, true, false},
                        Case{-1, 0, 0, true, true}}) {
    channel_.device = TgChannelState::kUnknown;
    channel_.sub_header_in_buffer = true;
    OpenLink(c.probe_result);
    std::vector<std::byte> data(std::max(c.request, c.reply), std::byte{7});
    reply_length_ = reply_needed_ = c.reply == 0 ? 0 : 4;
    const std::vector<std::byte> header = SubHeader(c.request, c.reply);
    Seen expected;
    if (!c.inline_header) {
      expected.buffers.emplace_back(header, true);
    }
    if (!c.inline_data && !data.empty()) {
      expected.buffers.emplace_back(data, c.reply != 0);
    }
    expected.inline_data = GateBytes()
                               .Raw(c.inline_header ? header : std::vector<std::byte>())
                               .Raw(c.inline_data ? data : std::vector<std::byte>());

    std::uint32_t received = 99;
    EXPECT_EQ(TgLinkSendMessage(link_, data.data(), c.request, c.reply, &received), kTgSuccess);
    EXPECT_EQ(seen_, std::vector<Seen>{expected}) << c.request << " " << c.reply;
    EXPECT_EQ(received, reply_length_);
    EXPECT_EQ(std::ranges::count(data, std::byte{0xAB}), reply_length_);
    TgLinkClose(link_);
  }
}

TEST_F(LinkTest, ReportsWhatBecameOfAMessage) {
  struct Case {
    std::vector<std::uint32_t> statuses;
    std::int32_t result;
    std::uint32_t needed;
    int expected;
  };
  OpenLink(-1);
  for (const Case& c : {Case{{}, 3, 8, kTgSuccess}, Case{{}, -4, 0, kTgServiceFailed}, Case{{}, 5, 9, kTgReplyTooLarge},
                        Case{{1}, 0, 0, kTgRejected}, Case{{kTgStatusFailure}, 0, 0, kTgChannelFailure}}) {
    seen_.clear();
    link_.last_status = 0;
    statuses_ = c.statuses;
    result_ = c.result;
    reply_needed_ = c.needed;
    reply_length_ = 4000000000;  // more than there is room for
    std::vector<std::byte> data(8);
    std::uint32_t received = 0;
    EXPECT_EQ(TgLinkSendMessage(link_, data.data(), 8, 8, &received), c.expected);
    EXPECT_EQ(link_.last_status, c.result);
    EXPECT_EQ(received, c.expected == kTgSuccess ? 8U : 0U);
  }
  write_result_ = kTgSubmitInterrupted;
  EXPECT_EQ(TgLinkSendMessage(link_, nullptr, 0, 0), kTgChannelFailure);
}

TEST_F(LinkTest, RegistersAndUnregistersByteForByte) {
  OpenLink(0);
  const std::byte extra[] = {std::byte{0xFE}, std::byte{0xFF}};
  EXPECT_EQ(TgRegisterService(link_, "n", "title", 0, 5, "s!", extra), kTgSuccess);
  EXPECT_EQ(TgRegisterService(link_, "n", nullptr, 0, 0, nullptr, {}), kTgSuccess);
  EXPECT_EQ(TgUnregisterService(link_, "name"), kTgSuccess);
  const auto message = [](std::uint32_t payload) {
    return GateBytes().U32({14, 0, 1, 0, payload, 0x1000, 0, 8, 0x2001, 0, 1, 3});
  };
  GateBytes complete = message(130).U32({5, 0x20CA, 1}).Text("title");
  complete.U32({40, 0x20CB, 2, kProductMajor, kProductMinor, kProductBuild, 0x80000000, 0, 5, 9, 9, 0, 0})
      .U32({2, 0x20CC, 3})
      .Text("s!");
  const std::vector<std::byte> expected[] = {
      complete.U32({2, 0x20CD, 4}).Raw(extra).U32({1, 0x2191, 5}).Text("n"),
      message(33).U32({1, 0x2191, 1}).Text("n"),
      message(52).U32({4, 0x20CF, 1, 2, 4, 0x2191, 2}).Text("name"),
  };
  ASSERT_EQ(seen_.size(), std::size(expected));
  for (std::size_t i = 0; i < seen_.size(); ++i) {
    EXPECT_TRUE(seen_[i].buffers.at(1) == SeenBuffer{expected[i]}) << i;
  }

  seen_.clear();
  EXPECT_EQ(TgRegisterService(link_, nullptr, "title", 1, 0, nullptr, {}), kTgInvalidArgument);
  EXPECT_TRUE(seen_.empty());
  result_ = -1;
  EXPECT_EQ(TgRegisterService(link_, "name", nullptr, 1, 0, nullptr, {}), kTgNotDelivered);
}

}  // namespace
}  // namespace qel
