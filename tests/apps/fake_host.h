// A host in this process: takes what GuestCommands sends and serves host commands.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "host_command_builder.h"
#include "tools_gate/guest_commands.h"

namespace qel::test {

class FakeHost {
 public:
  FakeHost() : guest_commands_([this](TgRequest& request) { return Submit(request); }) {}

  const GuestCommands& Commands() const { return guest_commands_; }

  // The blocks returned by the next fetches, one each; when there is none, fetches fail.
  void Offer(Bytes block) {
    const std::lock_guard guard(lock_);
    offered_.push_back(std::move(block));
  }

  // Called with every block before it is answered.
  void OnSend(std::function<void(const Bytes&)> on_send) { on_send_ = std::move(on_send); }

  // The blocks sent so far with this code, in order.
  std::vector<Bytes> Sent(std::uint32_t code) {
    const std::lock_guard guard(lock_);
    std::vector<Bytes> matching;
    for (const Bytes& block : sent_) {
      if (Bytes(block.begin(), block.begin() + 4) == Words({code})) {
        matching.push_back(block);
      }
    }
    return matching;
  }

 private:
  bool Submit(TgRequest& request) {
    const TgBuffer& block = request.buffers[0];
    const TgBuffer& reply = request.buffers[1];
    const Bytes sent(block.data, block.data + block.size);
    if (on_send_) {
      on_send_(sent);
    }
    const std::lock_guard guard(lock_);
    sent_.push_back(sent);
    if (Bytes(sent.begin(), sent.begin() + 4) != Words({0})) {
      return true;
    }
    if (offered_.empty()) {
      return false;
    }
    const Bytes& offered = offered_.front();
    std::copy_n(offered.begin(), std::min<std::size_t>(offered.size(), reply.size), reply.data);
    offered_.pop_front();
    return true;
  }

  GuestCommands guest_commands_;
  std::function<void(const Bytes&)> on_send_;
  std::mutex lock_;
  std::deque<Bytes> offered_;
  std::vector<Bytes> sent_;
};

}  // namespace qel::test
