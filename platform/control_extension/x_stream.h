// The two byte streams of one X connection, taken apart into requests and replies so that the extension can be put in.
//
// Every request of a client reaches the server as one request, and every reply as one reply: the numbers by which X
// matches them stay right. A request of the extension travels as a GetInputFocus, whose reply has the size of the
// extension's and is rewritten on its way back. Bytes are passed on as they come, in pieces of any size; only what may
// have to be changed is held back until it is complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "control_extension/control_state.h"

namespace qel::control_extension {

using Bytes = std::vector<std::uint8_t>;

// The major opcode the extension has for its clients; servers number theirs upwards from 128.
inline constexpr std::uint8_t kMajorOpcode = 250;

// What the two directions of a connection have to know of each other.
struct Conversation {
  enum class Rewrite { kExtensionPresent, kExtensionAbsent, kConsoleActive, kGrant };
  struct Expected {
    std::uint16_t sequence;
    Rewrite rewrite;
  };
  bool big_endian = false;
  std::deque<Expected> expected;  // replies to rewrite, in the order in which they will come
};

// From the client to the server.
class RequestStream {
 public:
  RequestStream(Conversation& conversation, ControlState& state) : conversation_(conversation), state_(state) {}

  // Takes what the client sent and appends what the server is to get.
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
  std::size_t wanted_ = 12;      // how much of it has to be there to go on
  std::uint64_t pass_left_ = 0;  // bytes that belong to the request released last
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
