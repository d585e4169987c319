// A host, whole: the device file, the decoder, the model of what it shows, the commands it gives and its faults.
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

// Safe from any thread, but Start(), Stop() and SetObserver(), which belong to one.
class Host : private GateHandler {
 public:
  Host() = default;
  ~Host() override { Stop(); }

  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  bool Start(std::string& error);
  // Answers whoever waits and takes the device file away. Model, commands and faults stay as they are.
  void Stop() { device_.Stop(); }

  const Model& model() const { return model_; }
  Faults& faults() { return faults_; }
  [[nodiscard]] bool WaitFor(const Model::Predicate& predicate, std::chrono::milliseconds timeout) const {
    return model_.WaitFor(predicate, timeout);
  }

  // The agent gets it with one of its next fetches.
  void Send(HostCommand command) { commands_.Push(std::move(command)); }
  std::size_t CommandsWaiting() const { return commands_.Waiting(); }

  // How often the device file was opened and closed. The kernel reports a close a moment after the program did it.
  std::uint64_t Opens() const { return opens_; }
  std::uint64_t Closes() const { return closes_; }

  // Called after each message, on the device's thread; it may not block. To be set before Start().
  void SetObserver(std::function<void()> observer) { observer_ = std::move(observer); }

 private:
  GateAnswer OnRequest(const GateRequest& request) override;
  void OnProblem(pid_t thread, const std::string& text) override;
  int OnOpen(pid_t thread) override;
  void OnClose() override { ++closes_; }

  Event DecodeAndCheck(const GateRequest& request);
  // Notes what does not fit what the sender's probe was answered.
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
  // Of the device's thread alone.
  std::map<pid_t, GateRequest> resubmissions_;   // by thread: what it has to submit again, unchanged
  std::map<pid_t, std::int32_t> probe_results_;  // by process: what its probe was answered
  GateDevice device_;                            // last, so that it ends before what its thread uses
};

}  // namespace qel::host
