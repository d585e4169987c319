#include "control_extension/proxy.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace qel::control_extension {
namespace {

int NumberOfServer(const std::string& server) {
  const int number = DisplayNumber(server);
  if (number < 0) {
    throw std::invalid_argument("not a display of this machine: " + server);
  }
  return number;
}

}  // namespace

Proxy::Proxy(const std::string& server)
    : server_number_(NumberOfServer(server)), stop_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!stop_event_) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  // The new thread blocks all signals, so that the other threads of the program handle them.
  sigset_t all;
  sigset_t earlier;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &earlier);
  thread_ = std::thread(&Proxy::Serve, this);
  pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

Proxy::~Proxy() {
  eventfd_write(stop_event_.Get(), 1);
  thread_.join();
}

void Proxy::Serve() {
  std::vector<pollfd> set;
  while (true) {
    set = {{stop_event_.Get(), POLLIN, 0}, {socket_.Descriptor(), POLLIN, 0}};
    for (const Connection& connection : connections_) {
      const auto wanted = connection.Wanted();
      set.insert(set.end(), wanted.begin(), wanted.end());
    }
    if (poll(set.data(), set.size(), -1) < 0) {
      continue;  // EINTR, or a temporary lack of memory
    }
    if (set[0].revents != 0) {
      return;
    }
    std::size_t entry = 2;
    for (auto connection = connections_.begin(); connection != connections_.end(); entry += 2) {
      const bool alive = connection->Move(set[entry], set[entry + 1]);
      connection = alive ? std::next(connection) : connections_.erase(connection);
    }
    if (set[1].revents != 0) {
      AcceptClients();
    }
  }
}

void Proxy::AcceptClients() {
  while (UniqueFd client = socket_.Accept()) {
    if (UniqueFd server = ConnectToDisplay(server_number_)) {
      connections_.emplace_back(std::move(client), std::move(server), state_);
    }
  }
}

}  // namespace qel::control_extension
