// The streams of an X connection, as the proxy forwards them: the input is cut into pieces at random, and the result is
// compared with that of a simple function that has the whole stream.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "control_extension/x_stream.h"
#include "support/fuzzed_data.h"

namespace {

using qel::control_extension::Bytes;
using qel::fuzz::Expect;

constexpr std::size_t kControlOpcode = 250;

// Reads numbers in the byte order of the connection. Bytes after the end are zero.
struct Numbers {
  const Bytes& bytes;
  bool big_endian;

  std::uint64_t At(std::size_t offset, std::size_t size) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const std::size_t at = offset + i;
      const std::uint64_t byte = at < bytes.size() ? bytes[at] : 0;
      value |= byte << (8 * (big_endian ? size - 1 - i : i));
    }
    return value;
  }
};

struct Rewritten {
  std::uint16_t sequence;
  std::uint8_t byte8;  // the bytes of the reply after the header that are not zero
  std::uint8_t byte9;
  std::uint8_t byte11;
  bool clears_detail;
};

struct Requests {
  Bytes output;
  std::deque<Rewritten> replies;
  bool big_endian = false;
};

bool IsQueryOf(const Bytes& in, std::size_t at, std::size_t size, std::size_t name_size, const std::string& name) {
  return size >= 8 && std::min(name_size, size - 8) == name.size() &&
         std::equal(name.begin(), name.end(), in.begin() + static_cast<std::ptrdiff_t>(at + 8));
}

// What the server must get from a client that sends `in`.
Requests RequestsPlainly(const Bytes& in) {
  Requests result;
  if (in.size() < 12) {
    return result;
  }
  result.output = in;
  result.big_endian = in[0] == 'B';
  const Numbers numbers{in, result.big_endian};
  const auto padded = [](std::uint64_t size) { return (size + 3) / 4 * 4; };
  std::size_t at = 12 + padded(numbers.At(6, 2)) + padded(numbers.At(8, 2));
  result.output.resize(std::min(at, in.size()));
  for (std::uint16_t sequence = 1; at < in.size(); ++sequence) {
    const bool is_big = in.size() - at >= 4 && numbers.At(at + 2, 2) == 0;
    const std::size_t header = is_big ? 8 : 4;
    if (in.size() - at < header) {
      break;  // waits for the rest
    }
    const std::size_t size = std::max(header, 4 * (is_big ? numbers.At(at + 4, 4) : numbers.At(at + 2, 2)));
    const bool is_query = in[at] == 98;
    const bool is_complete = in.size() - at >= size;
    if ((is_query || in[at] == kControlOpcode) && !is_big && size <= 64 && !is_complete) {
      break;
    }
    Bytes request(in.begin() + static_cast<std::ptrdiff_t>(at),
                  in.begin() + static_cast<std::ptrdiff_t>(std::min(at + size, in.size())));
    if (is_query && !is_big && size <= 64) {
      const std::size_t name_size = numbers.At(at + 4, 2);
      if (IsQueryOf(in, at, size, name_size, "CorvessanControl")) {
        result.replies.push_back({sequence, 1, kControlOpcode, 0, false});
      } else if (IsQueryOf(in, at, size, name_size, "DRI3") || IsQueryOf(in, at, size, name_size, "MIT-SHM")) {
        result.replies.push_back({sequence, 0, 0, 0, false});
      }
    } else if (in[at] == kControlOpcode && !is_big &&
               ((in[at + 1] == 28 && size == 4) || (in[at + 1] == 29 && size == 8))) {
      request = result.big_endian ? Bytes{43, 0, 0, 1} : Bytes{43, 0, 1, 0};
      const std::uint8_t flag = 1;
      result.replies.push_back(
          {sequence, result.big_endian ? std::uint8_t{0} : flag, 0, result.big_endian ? flag : std::uint8_t{0}, true});
    }
    result.output.insert(result.output.end(), request.begin(), request.end());
    at += size;
  }
  return result;
}

// What the client must get from a server that sends `in`.
Bytes RepliesPlainly(const Bytes& in, Requests requests) {
  const Numbers numbers{in, requests.big_endian};
  if (in.size() < 8) {
    return {};
  }
  std::size_t at = in[0] == 1 ? std::min<std::size_t>(8 + 4 * numbers.At(6, 2), in.size()) : in.size();
  Bytes output(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(at));
  while (in.size() - at >= 32) {
    const bool has_extra = in[at] == 1 || (in[at] & 0x7F) == 35;
    const std::uint64_t whole = 32 + (has_extra ? 4 * numbers.At(at + 4, 4) : 0);
    const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(whole, in.size() - at));
    Bytes packet(in.begin() + static_cast<std::ptrdiff_t>(at), in.begin() + static_cast<std::ptrdiff_t>(at + size));
    if (in[at] <= 1 && !requests.replies.empty() && requests.replies.front().sequence == numbers.At(at + 2, 2)) {
      const Rewritten reply = requests.replies.front();
      requests.replies.pop_front();
      if (in[at] == 1) {
        std::fill(packet.begin() + 8, packet.begin() + 32, std::uint8_t{0});
        packet[1] = reply.clears_detail ? 0 : packet[1];
        packet[8] = reply.byte8;
        packet[9] = reply.byte9;
        packet[11] = reply.byte11;
      }
    }
    output.insert(output.end(), packet.begin(), packet.end());
    at += size;
  }
  return output;
}

template <typename Stream>
Bytes FeedInPieces(Stream& stream, const Bytes& in, qel::fuzz::FuzzedData pieces) {
  Bytes output;
  for (std::size_t at = 0; at < in.size();) {
    const std::size_t size =
        std::min<std::size_t>(pieces.IsEmpty() ? in.size() : pieces.Byte() % 40 + 1, in.size() - at);
    const Bytes piece(in.begin() + static_cast<std::ptrdiff_t>(at),
                      in.begin() + static_cast<std::ptrdiff_t>(at + size));
    stream.Feed(piece, output);
    at += size;
  }
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const auto cuts = input.Bytes(input.Byte() % 32);
  const auto sent = input.Bytes(input.Number(2));
  const Bytes from_client(sent.begin(), sent.end());
  const auto rest = input.Bytes(size);
  const Bytes from_server(rest.begin(), rest.end());

  qel::control_extension::Conversation conversation;
  qel::control_extension::ControlState state;
  qel::control_extension::RequestStream requests(conversation, state);
  qel::control_extension::ReplyStream replies(conversation, state);
  const qel::fuzz::FuzzedData pieces(cuts.data(), cuts.size());
  const Requests expected = RequestsPlainly(from_client);
  Expect(FeedInPieces(requests, from_client, pieces) == expected.output, "the server gets the right requests");
  Expect(FeedInPieces(replies, from_server, pieces) == RepliesPlainly(from_server, expected),
         "the client gets the right replies");
  return 0;
}
