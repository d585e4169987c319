// The queue of host commands that the agent has not fetched yet.
#pragma once

#include <deque>
#include <mutex>
#include <optional>

#include "host/host_commands.h"
#include "host/notifications.h"

namespace qel::host {

// The answer to a fetch.
struct FetchReply {
  Bytes bytes;                        // for the reply area; never larger than that
  std::optional<HostCommand> served;  // the command that was sent completely with this answer
  std::string violation;              // an error in the fetch; empty if there is none
  std::string remark;                 // a note about an earlier command; empty if there is none
};

// Answers each fetch with one command, in order. Any thread may use it.
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
  std::optional<HostCommand> announced_;  // too large for the first answer; the agent must fetch it again
};

}  // namespace qel::host
