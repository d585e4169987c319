// The host commands that wait to be fetched.
#pragma once

#include <deque>
#include <mutex>
#include <optional>

#include "host/host_commands.h"
#include "host/notifications.h"

namespace qel::host {

// What a fetch gets.
struct FetchReply {
  Bytes bytes;                        // for the reply area; never larger than its room
  std::optional<HostCommand> served;  // the command that is out now, whole
  std::string violation;              // what was wrong with asking; empty if nothing
  std::string remark;                 // what became of an earlier command; empty if nothing
};

// Serves one command per fetch, in order. Safe from any thread.
class CommandQueue {
 public:
  void Push(HostCommand command);
  std::size_t Waiting() const;
  FetchReply Serve(const Fetch& fetch);

 private:
  FetchReply ServeFirst(const Fetch& fetch);
  FetchReply ServeLarge(const Fetch& fetch);

  mutable std::mutex mutex_;
  std::deque<HostCommand> waiting_;
  std::optional<HostCommand> announced_;  // too large for the first answer; the agent is to fetch it again
};

}  // namespace qel::host
