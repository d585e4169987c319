#include "host/faults.h"

namespace qel::host {

void Faults::Add(const Fault& fault) {
  const std::lock_guard lock(mutex_);
  if (fault.times > 0) faults_.push_back(fault);
}

void Faults::SetDelay(std::chrono::milliseconds delay, std::optional<MessageKind> kind) {
  const std::lock_guard lock(mutex_);
  delays_[kind] = delay;
}

void Faults::SetProbeResult(std::int32_t result) {
  const std::lock_guard lock(mutex_);
  probe_result_ = result;
}

void Faults::RefuseOpens(int error) {
  const std::lock_guard lock(mutex_);
  open_error_ = error;
}

void Faults::Clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
  delays_.clear();
  probe_result_ = 0;
  open_error_ = 0;
}

std::optional<Fault> Faults::Take(MessageKind kind) {
  const std::lock_guard lock(mutex_);
  for (auto fault = faults_.begin(); fault != faults_.end(); ++fault) {
    if (fault->kind && *fault->kind != kind) continue;
    const Fault taken = *fault;
    if (--fault->times == 0) faults_.erase(fault);
    return taken;
  }
  return std::nullopt;
}

std::chrono::milliseconds Faults::DelayOf(MessageKind kind) const {
  const std::lock_guard lock(mutex_);
  auto found = delays_.find(kind);
  if (found == delays_.end()) found = delays_.find(std::nullopt);
  return found == delays_.end() ? std::chrono::milliseconds(0) : found->second;
}

std::int32_t Faults::ProbeResult() const {
  const std::lock_guard lock(mutex_);
  return probe_result_;
}

int Faults::OpenError() const {
  const std::lock_guard lock(mutex_);
  return open_error_;
}

Bytes Faults::Garbage(std::size_t size) {
  const std::lock_guard lock(mutex_);
  Bytes bytes(size);
  // Marsaglia's xorshift: the same bytes in every run, so that a failure can be repeated.
  for (std::uint8_t& byte : bytes) {
    garbage_state_ ^= garbage_state_ << 13;
    garbage_state_ ^= garbage_state_ >> 17;
    garbage_state_ ^= garbage_state_ << 5;
    byte = static_cast<std::uint8_t>(garbage_state_);
  }
  return bytes;
}

}  // namespace qel::host
