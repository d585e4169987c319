// Splits the two byte streams of an X connection into requests and replies, in order to add the extension.
//
// Each request of a client is sent to the server as one request, and each reply to the client as one reply, so the
// sequence numbers of X stay correct. A request of the extension is replaced by GetInputFocus. Its reply has the same
// size, and is rewritten to the reply of the extension. Bytes are forwarded as they arrive, in pieces of any size. Only
// requests and replies that may have to be changed are kept until they are complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "control_extension/control_state.h"

namespace qel::control_extension {

using Bytes = std::vector<std::uint8_t>;

// The major opcode of the extension. Servers number their own extensions upwards from 128.
inline constexpr std::uint8_t kMajorOpcode = 250;

// The state that the two directions of a connection share.
struct Conversation {
  enum class Rewrite { kExtensionPresent, kExtensionAbsent, kConsoleActive, kGrant };
  struct Expected {
    std::uint16_t sequence;
    Rewrite rewrite;
  };
  bool big_endian = false;
  std::deque<Expected> expected;  // replies to rewrite, in the order of arrival
};

// From the client to the server.
class RequestStream {
 public:
  RequestStream(Conversation& conversation, ControlState& state) : conversation_(conversation), state_(state) {}

  // Takes bytes from the client and appends the bytes for the server to `output`.
  void Feed(std::span<const std::uint8_t> input, Bytes& output);

 private:
  void OnSetup(Bytes& output);
  void OnRequest(Bytes& output);
  void Inspect();
  void InspectExtensionQuery();
  void InspectControlRequest();
  void Expect(Conversation::Rewrite rewrite);

  Conversation& conversation_;
  ControlState& state_;
  bool set_up_ = false;
  std::uint16_t sequence_ = 0;
  Bytes held_;                   // the beginning of a request
  std::size_t wanted_ = 12;      // the size that held_ must reach before it can be processed
  std::uint64_t pass_left_ = 0;  // remaining bytes of the previous request, which are forwarded unchanged
};

// From the server to the client.
class ReplyStream {
 public:
  ReplyStream(Conversation& conversation, const ControlState& state) : conversation_(conversation), state_(state) {}

  void Feed(std::span<const std::uint8_t> input, Bytes& output);

 private:
  void OnSetup(Bytes& output);
  void OnPacket(Bytes& output);
  void Rewrite(Conversation::Rewrite rewrite);

  Conversation& conversation_;
  const ControlState& state_;
  bool set_up_ = false;
  Bytes held_;
  std::size_t wanted_ = 8;
  std::uint64_t pass_left_ = 0;
};

}  // namespace qel::control_extension
