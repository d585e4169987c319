// Faults of the host that tests can request.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "host/gate_request.h"
#include "host/notifications.h"

namespace qel::host {

enum class FaultAction {
  kResubmit,    // the status that asks the agent to submit the request again
  kFail,        // the channel's failure status
  kReject,      // another status
  kWriteError,  // write() fails
  kGarbage,     // the message is accepted, and the writable buffers are filled with garbage
};

struct Fault {
  FaultAction action = FaultAction::kFail;
  std::uint32_t times = 1;
  std::optional<MessageKind> kind = std::nullopt;  // any message if not set
  std::uint32_t status = kStatusRejected;          // of a rejection
  int error = 5;                                   // errno value of a write error (EIO)
};

// Any thread may use it.
class Faults {
 public:
  // The fault is applied to the next `times` messages (of its kind). If several faults match a message, the oldest is
  // applied.
  void Add(const Fault& fault);
  // From now on each answer (to messages of that kind) is delayed; zero ends this. The delay for a kind has priority
  // over the delay for all kinds. Signals to the sender do not shorten the delay.
  void SetDelay(std::chrono::milliseconds delay, std::optional<MessageKind> kind = std::nullopt);
  // Sets the result for probes; negative values are failures. Initially 0.
  void SetProbeResult(std::int32_t result);
  // Every open of the device file fails with this errno value; 0 ends it.
  void RefuseOpens(int error);
  // Removes all faults.
  void Clear();

  // Returns the fault for a message of this kind, if there is one, and decrements its count.
  std::optional<Fault> Take(MessageKind kind);
  std::chrono::milliseconds DelayOf(MessageKind kind) const;
  std::int32_t ProbeResult() const;
  int OpenError() const;
  Bytes Garbage(std::size_t size);

 private:
  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::map<std::optional<MessageKind>, std::chrono::milliseconds> delays_;
  std::int32_t probe_result_ = 0;
  int open_error_ = 0;
  std::uint32_t garbage_state_ = 0x2545F491;
};

}  // namespace qel::host
