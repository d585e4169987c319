// One client of the proxy and its connection to the real server.
#pragma once

#include <poll.h>

#include <array>

#include "common/unique_fd.h"
#include "control_extension/x_stream.h"

namespace qel::control_extension {

// Never blocks. A side that does not read stops the other from being read, so that what is buffered stays bounded.
class Connection {
 public:
  // Takes two connected, non-blocking sockets.
  Connection(UniqueFd client, UniqueFd server, ControlState& state);
  Connection(const Connection&) = delete;  // the streams refer to the conversation
  Connection& operator=(const Connection&) = delete;

  // What to wait for: the client's entry and the server's.
  std::array<pollfd, 2> Wanted() const;

  // Moves what can be moved, given the two entries after poll(). False when the connection is over.
  bool Move(const pollfd& client_ready, const pollfd& server_ready);

 private:
  // One direction: bytes that were read from one side and wait for the other.
  struct Flow {
    Bytes waiting;
    bool ended = false;  // nothing more will be read
    bool Idle() const { return waiting.empty(); }
    bool Full() const;
  };

  template <typename Stream>
  static bool Read(int source, Stream& stream, Flow& flow);
  static bool Write(int target, Flow& flow);

  UniqueFd client_;
  UniqueFd server_;
  Conversation conversation_;
  RequestStream requests_;
  ReplyStream replies_;
  Flow to_server_;
  Flow to_client_;
};

}  // namespace qel::control_extension
