// The device file of the gate, served from user space: a FUSE file system that holds this one file.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host/gate_request.h"

namespace qel::host {

// Decides the answers to requests. The device calls it on its serving thread, in the order in which the kernel has
// received the writes. So no function may block; GateAnswer::delay delays an answer.
class GateHandler {
 public:
  virtual ~GateHandler() = default;
  virtual GateAnswer OnRequest(const GateRequest& request) = 0;
  // A request could not be read, or an answer could not be written back.
  virtual void OnProblem(pid_t thread, const std::string& text) = 0;
  // Returns 0, or the errno value with which open() must fail.
  virtual int OnOpen(pid_t thread) = 0;
  virtual void OnClose() = 0;
};

// Serves /proc/driver/qel_tg in the mount namespace of this process, which must be private (see mount_namespace.h).
// Each request is processed at once, and its write() returns after the answer was written back. A delayed answer does
// not delay other answers.
class GateDevice {
 public:
  GateDevice();
  ~GateDevice();  // stops

  GateDevice(const GateDevice&) = delete;
  GateDevice& operator=(const GateDevice&) = delete;

  // Mounts the file system and starts serving. `handler` must exist until Stop(). Returns false, with the reason in
  // `error`, on failure.
  bool Start(GateHandler& handler, std::string& error);
  // Gives all delayed answers, unmounts, and ends the threads. Does nothing when it is not running.
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
