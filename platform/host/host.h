// A complete host: the device file, the decoder, the model of the guest, the command queue and the faults.
//
//   std::string error;
//   EnterPrivateMountNamespace(error);           // first thing in main(), before any thread
//   Host host;
//   host.Start(error);                           // the device file is there for programs started from now on
//   ... start the agent ...
//   host.WaitFor([](const ModelState& s) { return s.enumeration_finished; }, 10s);
//   host.Send(ActivateWindowCommand(id));
//   host.Stop();
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "host/command_queue.h"
#include "host/faults.h"
#include "host/gate_device.h"
#include "host/model.h"

namespace qel::host {

// Any thread may use it, except Start(), Stop() and SetObserver(), which must be called from one thread.
class Host : private GateHandler {
 public:
  Host() = default;
  ~Host() override { Stop(); }

  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  bool Start(std::string& error);
  // Gives all delayed answers and removes the device file. Model, commands and faults are kept.
  void Stop() { device_.Stop(); }

  const Model& model() const { return model_; }
  Faults& faults() { return faults_; }
  [[nodiscard]] bool WaitFor(const Model::Predicate& predicate, std::chrono::milliseconds timeout) const {
    return model_.WaitFor(predicate, timeout);
  }

  // Queues a command; the agent gets it with one of its next fetches.
  void Send(HostCommand command) { commands_.Push(std::move(command)); }
  std::size_t CommandsWaiting() const { return commands_.Waiting(); }

  // How often the device file was opened and closed. The kernel reports a close a moment later.
  std::uint64_t Opens() const { return opens_; }
  std::uint64_t Closes() const { return closes_; }

  // Sets a function that is called after each message, on the device's thread. It must not block. Call this before
  // Start().
  void SetObserver(std::function<void()> observer) { observer_ = std::move(observer); }

 private:
  GateAnswer OnRequest(const GateRequest& request) override;
  void OnProblem(pid_t thread, const std::string& text) override;
  int OnOpen(pid_t thread) override;
  void OnClose() override { ++closes_; }

  Event DecodeAndCheck(const GateRequest& request);
  // Adds a violation if the layout of a message does not match the answer to the sender's probe.
  void CheckProbe(Event& event);
  GateAnswer AnswerTo(const GateRequest& request, Event& event);
  void AnswerFetch(const GateRequest& request, GateAnswer& answer, Event& event);
  void Record(Event event);

  CommandQueue commands_;
  Faults faults_;
  Model model_;
  std::function<void()> observer_;
  std::atomic<std::uint64_t> opens_{0};
  std::atomic<std::uint64_t> closes_{0};
  // Used only on the device's thread.
  std::map<pid_t, GateRequest> resubmissions_;   // by thread: the request that it must submit again, unchanged
  std::map<pid_t, std::int32_t> probe_results_;  // by process: the answer to its probe
  GateDevice device_;                            // last member: destroyed before the members that its thread uses
};

}  // namespace qel::host
