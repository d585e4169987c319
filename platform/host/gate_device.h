// The device file of the gate, served from user space: a FUSE file system that holds this one file.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host/gate_request.h"

namespace qel::host {

// Who decides what becomes of requests. All calls come from the device's one serving thread, in the order in which the
// kernel took the writes, so none may block; a late answer is asked for with GateAnswer::delay.
class GateHandler {
 public:
  virtual ~GateHandler() = default;
  virtual GateAnswer OnRequest(const GateRequest& request) = 0;
  // A write that carries no readable request, or an answer that could not be written back.
  virtual void OnProblem(pid_t thread, const std::string& text) = 0;
  // 0, or the errno value that the open fails with.
  virtual int OnOpen(pid_t thread) = 0;
  virtual void OnClose() = 0;
};

// Serves /proc/driver/qel_tg in this process's mount namespace, which has to be a private one
// (see mount_namespace.h). A request is taken up at once and its write returns when the answer is written back; delayed
// answers wait side by side, whichever threads they belong to.
class GateDevice {
 public:
  GateDevice();
  ~GateDevice();  // stops

  GateDevice(const GateDevice&) = delete;
  GateDevice& operator=(const GateDevice&) = delete;

  // Mounts and serves. `handler` has to outlive the device's running time. False and a reason where that fails.
  bool Start(GateHandler& handler, std::string& error);
  // Gives every answer that still waits, unmounts, and ends the threads. Nothing happens when it is not running.
  void Stop();
  bool Running() const { return session_ != nullptr; }

  static constexpr const char* kMountPoint = "/proc/driver";
  static constexpr const char* kFileName = "qel_tg";
  static constexpr const char* kPath = "/proc/driver/qel_tg";

 private:
  class Session;
  std::unique_ptr<Session> session_;
};

}  // namespace qel::host
