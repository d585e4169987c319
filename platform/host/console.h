// The requests that a user or a script sends to tdlhost, one per line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"

namespace qel::host {

enum class OutputStyle { kText, kJson };

// Executes requests on a host. Answers go to standard output, errors and notes to standard error. One thread only.
class Console {
 public:
  Console(Host& host, OutputStyle style) : host_(host), style_(style) {}

  void Execute(const std::string& line);
  // Prints an error, in red if standard error is a terminal with colours.
  static void Complain(const std::string& problem);

  bool QuitAsked() const { return quit_; }
  // The caller must not execute another request before this time. Saw() may end the pause earlier.
  std::chrono::steady_clock::time_point PausedUntil() const { return paused_until_; }
  // Must be called with each received message: ends a pause that waits for a message of this kind.
  void Saw(const Event& event);

  // The possible next words after these words, for completion.
  std::vector<std::string> Completions(const std::vector<std::string>& words) const;

 private:
  using Words = std::vector<std::string>;
  using Run = void (Console::*)(const Words&);
  struct Request {
    std::string name;
    const char* usage;    // its arguments
    const char* group;    // the heading under which the help lists it
    const char* what;     // what it does
    const char* example;  // an example line
    Run run;
  };
  static const std::vector<Request>& Requests();  // in the order of the help
  static const Request* Find(const std::string& name);
  static std::string Usage(const Request& request);

  void Help(const Words& words);
  void Apps(const Words& words);
  void Windows(const Words& words);
  void Menu(const Words& words);
  void Status(const Words& words);
  void StartApp(const Words& words);
  void Activate(const Words& words);
  void ActivateApps(const Words& words);
  void Hide(const Words& words);
  void Quit(const Words& words);
  void Reset(const Words& words);
  void Raw(const Words& words);
  void IconOf(const Words& words);
  void Icons(const Words& words);
  void Resubmit(const Words& words) { AddFault(words, FaultAction::kResubmit); }
  void Fail(const Words& words) { AddFault(words, FaultAction::kFail); }
  void Reject(const Words& words) { AddFault(words, FaultAction::kReject); }
  void Garbage(const Words& words) { AddFault(words, FaultAction::kGarbage); }
  void Delay(const Words& words);
  void Wait(const Words& words);
  void QuitHost(const Words& words);

  void AddFault(const Words& words, FaultAction action);
  void Send(HostCommand command);
  void Print(const std::string& text) const;
  // The path for a name: the desktop file of the menu entry with this name, or the name itself.
  std::string ResolveApplication(const std::string& name) const;

  Host& host_;
  OutputStyle style_;
  bool quit_ = false;
  std::chrono::steady_clock::time_point paused_until_{};
  std::optional<MessageKind> awaited_;
};

// Saves the icon as DIR/<stem><extension>. Returns an error text, or an empty text on success.
std::string SaveIconIn(const std::string& directory, const std::string& stem, const Icon& icon);
// Saves all icons of the message. Returns the first error text, or an empty text on success.
std::string SaveIconsOf(const Event& event, const std::string& directory);

}  // namespace qel::host
