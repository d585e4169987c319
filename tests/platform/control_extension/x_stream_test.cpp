// The byte streams of a connection: what is rewritten, what passes untouched, in pieces of any size.
#include "control_extension/x_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace qel::control_extension {
namespace {

// Builds messages in one byte order.
struct Wire {
  bool big_endian;
  Bytes bytes{};

  Wire& U8(std::uint8_t value) {
    bytes.push_back(value);
    return *this;
  }
  Wire& U16(std::uint16_t value) {
    const auto high = static_cast<std::uint8_t>(value >> 8);
    const auto low = static_cast<std::uint8_t>(value);
    return big_endian ? U8(high).U8(low) : U8(low).U8(high);
  }
  Wire& U32(std::uint32_t value) {
    const auto high = static_cast<std::uint16_t>(value >> 16);
    const auto low = static_cast<std::uint16_t>(value);
    return big_endian ? U16(high).U16(low) : U16(low).U16(high);
  }
  Wire& Fill(std::size_t size, std::uint8_t value) {
    bytes.insert(bytes.end(), size, value);
    return *this;
  }
  Wire& QueryExtension(const std::string& name) {
    const std::size_t padded = (name.size() + 3) / 4 * 4;
    U8(98).U8(0).U16(static_cast<std::uint16_t>(2 + padded / 4)).U16(static_cast<std::uint16_t>(name.size())).U16(0);
    bytes.insert(bytes.end(), name.begin(), name.end());
    return Fill(padded - name.size(), 0);
  }
  // 32 bytes whose content is told by `value`, and more if `extra` 4-byte units are announced.
  Wire& Packet(std::uint8_t type, std::uint16_t sequence, std::uint32_t extra, std::uint8_t value) {
    return U8(type).U8(value).U16(sequence).U32(extra).Fill(24 + extra * 4, value);
  }
};

// Feeds it `piece` bytes at a time.
template <typename Stream>
Bytes Feed(Stream& stream, const Bytes& input, std::size_t piece) {
  Bytes output;
  for (std::size_t at = 0; at < input.size(); at += piece) {
    stream.Feed({input.data() + at, std::min(piece, input.size() - at)}, output);
  }
  return output;
}

void ExpectRewriting(bool big_endian, std::size_t piece) {
  Conversation conversation;
  ControlState state;
  RequestStream requests(conversation, state);
  ReplyStream replies(conversation, state);
  // What a client sends, and what the server gets of it.
  Wire sent{big_endian};
  sent.U8(big_endian ? 'B' : 'l').U8(0).U16(11).U16(0).U16(5).U16(3).U16(0).Fill(8 + 4, 'a');
  sent.QueryExtension("BIG-REQUESTS");                           // 1
  sent.U8(250).U8(7).U16(1);                                     // 2: no request of the extension
  sent.QueryExtension("CorvessanControl");                       // 3
  sent.U8(72).U8(2).U16(0).U32(70'000).Fill(4 * 70'000 - 8, 9);  // 4: a request of the long form
  Wire got = sent;
  sent.U8(250).U8(28).U16(1);                                  // 5
  sent.U8(250).U8(29).U16(2).U32(1000);                        // 6
  sent.QueryExtension("DRI3");                                 // 7
  sent.QueryExtension("CorvessanContro").U8(43).U8(0).U16(1);  // 8, 9
  got.U8(43).U8(0).U16(1).U8(43).U8(0).U16(1);
  got.QueryExtension("DRI3").QueryExtension("CorvessanContro").U8(43).U8(0).U16(1);
  EXPECT_EQ(Feed(requests, sent.bytes, piece), got.bytes);
  EXPECT_EQ(state.console_questions, 1u);
  EXPECT_EQ(state.claims, 1u);
  EXPECT_EQ(state.last_user, 1000u);

  // What the server answers, and what the client gets of it.
  state.grant = false;
  Wire untouched{big_endian};
  untouched.U8(1).U8(0).U16(11).U16(0).U16(2).Fill(8, 'v');
  untouched.Packet(1, 1, 0, 'q');    // the reply to request 1
  untouched.Packet(0, 2, 0, 'e');    // an error
  untouched.Packet(12, 3, 0, 'x');   // an event that names the request whose reply is next
  untouched.Packet(35, 3, 40, 'g');  // an event of any size
  untouched.Packet(163, 3, 5, 'g');  // and one that another client sent
  Wire answered = untouched;
  answered.Packet(1, 3, 0, 0).Packet(1, 4, 1000, 1).Packet(1, 5, 0, 2).Packet(1, 6, 0, 3);
  answered.Packet(1, 7, 0, 4).Packet(1, 8, 0, 5).Packet(1, 9, 0, 6);
  Wire expected = untouched;
  expected.U8(1).U8(0).U16(3).U32(0).U8(1).U8(250).Fill(22, 0).Packet(1, 4, 1000, 1);
  expected.U8(1).U8(0).U16(5).U32(0).U32(1).Fill(20, 0).U8(1).U8(0).U16(6).U32(0).U32(0).Fill(20, 0);
  expected.U8(1).U8(4).U16(7).U32(0).Fill(24, 0).Packet(1, 8, 0, 5).Packet(1, 9, 0, 6);
  EXPECT_EQ(Feed(replies, answered.bytes, piece), expected.bytes);
  EXPECT_TRUE(conversation.expected.empty());
}

TEST(XStream, RewritesWhatConcernsTheExtensionOnly) {
  for (const bool big_endian : {false, true}) {
    for (const std::size_t piece : {1U, 7U, 1U << 20}) {
      SCOPED_TRACE(testing::Message() << big_endian << " in pieces of " << piece);
      ExpectRewriting(big_endian, piece);
    }
  }
}

}  // namespace
}  // namespace qel::control_extension
