// The sockets by which X clients find their server on the same machine.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace qel::control_extension {

// A display number of one's own, with the socket that clients connect to. Lock file and socket go with it.
class DisplaySocket {
 public:
  // Takes the first free number from 50 upwards, so as not to be in the way of servers that count from 0. Throws
  // std::system_error when no socket can be made.
  DisplaySocket();
  ~DisplaySocket();
  DisplaySocket(const DisplaySocket&) = delete;
  DisplaySocket& operator=(const DisplaySocket&) = delete;

  int Number() const { return number_; }
  int Descriptor() const { return socket_.Get(); }

  // A waiting client, or an invalid descriptor when there is none.
  UniqueFd Accept() const;

 private:
  bool Lock();
  void Listen();

  int number_ = 0;
  UniqueFd socket_;
};

// The number in ":N" or ":N.S"; -1 for any other text.
int DisplayNumber(const std::string& display);

// Connects to the server of a display number; an invalid descriptor when that fails. The socket does not block.
UniqueFd ConnectToDisplay(int number);

}  // namespace qel::control_extension
