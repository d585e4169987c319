// The Unix-domain sockets of X displays on the same machine.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace qel::control_extension {

// Reserves a display number and listens on its socket. The destructor removes the lock file and the socket.
class DisplaySocket {
 public:
  // Takes the first free number from 50 upwards, because X servers use the numbers from 0. Throws std::system_error
  // when no number is free or no socket can be created.
  DisplaySocket();
  ~DisplaySocket();
  DisplaySocket(const DisplaySocket&) = delete;
  DisplaySocket& operator=(const DisplaySocket&) = delete;

  int Number() const { return number_; }
  int Descriptor() const { return socket_.Get(); }

  // Accepts a waiting client; returns an invalid descriptor when there is none.
  UniqueFd Accept() const;

 private:
  bool Lock();
  void Listen();

  int number_ = 0;
  UniqueFd socket_;
};

// The number in ":N" or ":N.S"; -1 for any other text.
int DisplayNumber(const std::string& display);

// Connects to the server with this display number; returns an invalid descriptor when that fails. The socket is
// non-blocking.
UniqueFd ConnectToDisplay(int number);

}  // namespace qel::control_extension
