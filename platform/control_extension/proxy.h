// A proxy between X clients and an X server that adds the extension "CorvessanControl" to the server.
//
// The proxy has its own display number. It supports clients of both byte orders, and requests of any size. Extensions
// that send file descriptors (DRI3, MIT-SHM) are reported as absent. QueryExtension finds the new extension, but
// ListExtensions does not list it.
#pragma once

#include <list>
#include <string>
#include <thread>

#include "control_extension/connection.h"
#include "control_extension/display_socket.h"

namespace qel::control_extension {

class Proxy {
 public:
  // Starts a thread that forwards clients to the display `server` (":N"). Throws std::invalid_argument when `server` is
  // not such a display, and std::system_error for other failures. While the server does not run, the connection of each
  // new client is closed.
  explicit Proxy(const std::string& server);
  // Closes all connections.
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  // ":N", for the environment variable DISPLAY.
  std::string Display() const { return ":" + std::to_string(socket_.Number()); }

  // The answers for clients, which may be changed at any time, and the counters. At first console and grant are on.
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
