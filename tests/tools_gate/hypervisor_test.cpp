#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>

#include "tools_gate/hypervisor_transfer.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

// The bytes from 1 to `length`, in hexadecimal.
std::string CountingHex(unsigned length) {
  std::string text;
  for (unsigned i = 1; i <= length; ++i) {
    text += {"0123456789abcdef"[(i >> 4) & 15], "0123456789abcdef"[i & 15]};
  }
  return text;
}

// Runs the client under the hypervisor. Returns the lines of both: each message as it arrived, and what became of it.
std::string RunClient(const std::string& options, const std::string& to_send) {
  // A leak check cannot be made in a process that is traced already.
  FILE* const run =
      popen(("ASAN_OPTIONS=detect_leaks=0 " HYPERVISOR_RUN " " + options + " -- " LINK_CLIENT + to_send).c_str(), "re");
  std::string output;
  for (int c = std::getc(run); c != EOF; c = std::getc(run)) {
    output += static_cast<char>(c);
  }
  EXPECT_EQ(pclose(run), 0);
  return output;
}

TEST(HypervisorTest, MessagesTravelInPieces) {
  for (const unsigned capacity : {0U, 5U, 16U, 40U, 300U}) {
    // The reply fills the capacity, so that it comes in pieces too.
    const std::string reply = CountingHex(capacity);
    std::string send;
    std::string expected;
    for (const unsigned length : {0U, 1U, 15U, 16U, 17U, 31U, 32U, 33U, 49U, 200U}) {
      send += " " + std::to_string(length) + ":" + std::to_string(capacity);
      expected += CountingHex(length) + "\n0 0 " + reply + "\n";
    }
    EXPECT_EQ(RunClient("--chunk 16 --reply '" + reply + "'", send), expected) << capacity;
  }
}

TEST(HypervisorTest, ReportsWhatTheHypervisorRefuses) {
  EXPECT_EQ(RunClient("--chunk 0", " 4:0"), "open -5\n");
  EXPECT_EQ(RunClient("--state -3", " 4:0"), "01020304\n-8 -3 \n");
  // The reply does not fit: cancelled, and the next message finds the channel in order.
  EXPECT_EQ(RunClient("--chunk 4 --reply aabbccdd0011", " 9:5 3:0 3:6"),
            "010203040506070809\n-7 2 \n010203\n-7 2 \n010203\n0 0 aabbccdd0011\n");
}

TEST(HypervisorTest, AbsenceIsSurvived) {
  const auto mine = [](int) {};
  const auto before = std::signal(SIGSEGV, mine);
  for (int i = 0; i < 3; ++i) {
    std::uint32_t chunk = 0;
    EXPECT_EQ(ProbeHypervisor(CallHypervisor, chunk), kTgChannelFailure);
  }
  EXPECT_EQ(std::signal(SIGSEGV, before), mine) << "the process's own handler is gone";
}

TEST(HypervisorTest, EachPieceOffersItsPlaceForTheReply) {
  std::vector<std::array<std::uint32_t, 3>> seen;  // reply offered, room, length of the piece
  const HypervisorCall call = [&](HypervisorRegisters& registers) {
    seen.push_back({registers.ecx, registers.edx, registers.esi});
    registers = {.edx = registers.edx, .edi = registers.ebx == 20 ? 1U : 0U};
    return true;
  };
  std::array<std::byte, 20> data{};
  HypervisorMessage message{.data = data.data(), .request_length = 20};
  EXPECT_EQ(SendOverHypervisor(call, 16, message), kTgSuccess);
  EXPECT_EQ(seen, (decltype(seen){{1, 4, 4}, {1, 16, 16}}));
  EXPECT_EQ(message.reply_length, 0U);
}

// Answers that cannot be true. The buffers are exactly as large as they have to be, so that the sanitizer sees a byte
// outside.
TEST(HypervisorTest, LiesAreNotBelieved) {
  struct Case {
    const char* name;
    std::uint32_t capacity;
    HypervisorRegisters answer;
    int expected;
    int calls;  // the cancelling one included
  };
  constexpr std::uint32_t kAll = 0xFFFFFFFF;
  for (const Case& c : {
           Case{"more than the room offered", 100, {.edx = 17, .esi = 100, .edi = 2}, kTgChannelFailure, 2},
           Case{"4 GiB delivered", 8, {.edx = kAll, .esi = 8}, kTgChannelFailure, 1},
           Case{"4 GiB announced", 8, {.edx = 0, .esi = kAll, .edi = 2}, kTgReplyTooLarge, 2},
           Case{"never ending large reply", 100, {.edx = 16, .esi = 100, .edi = 2}, kTgChannelFailure, 8},
           Case{"failed", 8, {.edx = kAll, .esi = kAll, .edi = kAll}, kTgServiceFailed, 1},
       }) {
    int calls = 0;
    const HypervisorCall call = [&](HypervisorRegisters& registers) {
      ++calls;
      registers = c.answer;
      return true;
    };
    std::vector<std::byte> data(c.capacity);
    HypervisorMessage message{.data = data.data(), .request_length = 8, .reply_capacity = c.capacity};
    EXPECT_EQ(SendOverHypervisor(call, 16, message), c.expected) << c.name;
    EXPECT_EQ(calls, c.calls) << c.name;
    EXPECT_LE(message.reply_length, c.capacity) << c.name;
  }
}

TEST(HypervisorTest, ATransferThatNeverEndsIsCancelledWhenTheProcessIsToEnd) {
  std::uint32_t last_call = 0;
  const auto start = std::chrono::steady_clock::now();
  const HypervisorCall call = [&](HypervisorRegisters& registers) {
    last_call = registers.eax;
    registers = {.edi = std::chrono::steady_clock::now() - start < std::chrono::seconds(4) ? 1U : 0U};
    return true;
  };
  TgLimitResubmission();
  HypervisorMessage message;
  EXPECT_EQ(SendOverHypervisor(call, 16, message), kTgChannelFailure);
  TgLiftResubmissionLimits();
  EXPECT_EQ(last_call, 0x05F9E655U);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace
}  // namespace qel
