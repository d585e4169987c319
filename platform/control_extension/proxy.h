// Stands between X clients and an X server, and adds the extension "CorvessanControl" to what the server can do.
//
// It is a display of its own. Clients of either byte order work through it, with requests of any size; extensions that
// pass descriptors along (DRI3, MIT-SHM) are reported as absent. The list of extensions does not name the extension,
// only the query by name knows it.
#pragma once

#include <list>
#include <string>
#include <thread>

#include "control_extension/connection.h"
#include "control_extension/display_socket.h"

namespace qel::control_extension {

class Proxy {
 public:
  // Serves from here on, on a thread of its own, the display `server` (":N") by its number. Throws std::system_error,
  // or std::invalid_argument for another kind of display. Clients come and go while the server is away: each finds its
  // connection closed.
  explicit Proxy(const std::string& server);
  // Closes all connections.
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  // ":N", for the environment variable DISPLAY.
  std::string Display() const { return ":" + std::to_string(socket_.Number()); }

  // What clients get for an answer from now on, and what they asked. Console and grant are on at the beginning.
  ControlState& State() { return state_; }

 private:
  void Serve();
  void AcceptClients();

  const int server_number_;
  DisplaySocket socket_;
  UniqueFd stop_event_;
  ControlState state_;
  std::list<Connection> connections_;
  std::thread thread_;
};

}  // namespace qel::control_extension
