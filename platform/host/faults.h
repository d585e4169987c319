// How a host misbehaves on request.
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
  kResubmit,    // the status that asks for the same request again
  kFail,        // the channel's failure status
  kReject,      // another status
  kWriteError,  // the write itself fails
  kGarbage,     // the message is taken as usual, and the writable buffers are filled with garbage
};

struct Fault {
  FaultAction action = FaultAction::kFail;
  std::uint32_t times = 1;
  std::optional<MessageKind> kind = std::nullopt;  // any message if not set
  std::uint32_t status = kStatusRejected;          // of a rejection
  int error = 5;                                   // errno value of a write error (EIO)
};

// Safe from any thread.
class Faults {
 public:
  // The next `times` messages (of that kind) meet the fault. Faults that match the same message are used up in order.
  void Add(const Fault& fault);
  // From now on every answer (to messages of that kind) comes so late; zero ends it. A kind's own delay goes before the
  // one for all. Signals to the sender do not end it.
  void SetDelay(std::chrono::milliseconds delay, std::optional<MessageKind> kind = std::nullopt);
  // The result given to probes; negative values are failures. At first 0.
  void SetProbeResult(std::int32_t result);
  // Every open of the device file fails with this errno value; 0 ends it.
  void RefuseOpens(int error);
  // Back to good behaviour.
  void Clear();

  // The fault that this message meets, used up once.
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
