// One client of the proxy and its connection to the real server.
#pragma once

#include <poll.h>

#include <array>

#include "common/unique_fd.h"
#include "control_extension/x_stream.h"

namespace qel::control_extension {

// Never blocks. When one side does not read, the proxy stops reading from the other side, so the buffered data is
// limited.
class Connection {
 public:
  // Takes ownership of two connected, non-blocking sockets. `state` must outlive the object.
  Connection(UniqueFd client, UniqueFd server, ControlState& state);
  Connection(const Connection&) = delete;  // the streams refer to conversation_
  Connection& operator=(const Connection&) = delete;

  // The entries for poll(): first the client's, then the server's.
  std::array<pollfd, 2> Wanted() const;

  // Reads and writes as much as is possible without blocking. Takes the two entries after poll(). Returns false when
  // the connection has ended.
  bool Move(const pollfd& client_ready, const pollfd& server_ready);

 private:
  // One direction: the bytes that were read from one side and not yet written to the other.
  struct Flow {
    Bytes waiting;
    bool ended = false;  // the source has closed the connection
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
