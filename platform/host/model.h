// The model of the guest: the state that results from the agent's messages, and the list of the messages.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/host_commands.h"
#include "host/notifications.h"

namespace qel::host {

// How the host has answered a message.
enum class Outcome {
  kTaken,        // answered with success; the model is updated
  kResubmit,     // the agent must submit it again
  kFailed,       // answered with the failure status
  kRejected,     // answered with another status
  kWriteFailed,  // write() failed
};
const char* OutcomeName(Outcome outcome);

struct Event {
  std::uint64_t sequence = 0;  // 1 for the first
  std::chrono::system_clock::time_point time;
  std::chrono::steady_clock::time_point arrival;
  pid_t agent = 0;   // the sender's process
  pid_t thread = 0;  // the sender's thread
  Outcome outcome = Outcome::kTaken;
  Notification notification;
  std::vector<std::string> violations;  // violations of the message format
  std::vector<std::string> remarks;     // allowed, but unusual after the earlier messages
  std::optional<std::string> command;   // for a fetch: the command that was sent
};

// Whether the event is a fetch that brought nothing. An agent fetches every second, so these are not worth showing.
bool IsIdleFetch(const Event& event);

struct Window {
  std::uint32_t id = 0;
  pid_t agent = 0;  // the agent that has reported it
  std::string name;
  std::string path;
  std::string title;
  Icon icon;
  std::optional<Icon> small_icon;
};

struct Application {
  std::uint32_t pid = 0;
  std::map<std::uint32_t, Window> windows;  // by id
  // Changes of titles and icons contain the id of the application's own window. If the window manager adds frames, the
  // reported window is the frame around it. Changes whose id is not that of a reported window are kept here.
  std::map<std::uint32_t, std::string> inner_titles;
  std::map<std::uint32_t, Icon> inner_icons;
};

struct ModelState {
  std::optional<bool> tool_active;            // not set before the first message about it
  std::map<pid_t, RegisterService> services;  // by agent
  std::map<std::uint32_t, Application> applications;
  std::set<std::uint32_t> hidden_windows;
  std::optional<HiddenWindows> last_hidden;  // the last reply to a hide command
  std::optional<AppMenu> menu;
  bool enumeration_finished = false;                  // since the tool became active or was reset
  std::array<std::uint64_t, kMessageKinds> counts{};  // of messages with Outcome::kTaken, by kind
  std::uint64_t messages = 0;                         // of all messages
  std::uint64_t violations = 0;
  std::uint64_t remarks = 0;
  std::deque<Event> events;  // the newest messages; old ones are removed when they are too many or too large

  std::uint64_t Count(MessageKind kind) const { return counts[static_cast<std::size_t>(kind)]; }
  // The window with this id, of any application; nullptr if there is none.
  const Window* FindWindow(std::uint32_t id) const;
  // The first window with this title; nullptr if there is none.
  const Window* FindTitle(const std::string& title) const;
  std::size_t WindowCount() const;
};

// Any thread may use it.
class Model {
 public:
  using Predicate = std::function<bool(const ModelState&)>;

  // Adds a message: sets its number and time, adds remarks, and updates the state if it was taken. Returns its number.
  std::uint64_t Apply(Event event);
  // Must be called when the agent has fetched a command. After a reset, the agent's next "tool active" message clears
  // the state. A window to activate is no longer hidden.
  void CommandServed(pid_t agent, const HostCommand& command);

  // Calls `reader` with the state, which does not change during the call. `reader` must not call the model.
  void Read(const std::function<void(const ModelState&)>& reader) const;
  ModelState Snapshot() const;
  // Waits until the predicate returns true; it is called again after each message. Returns false after the timeout.
  [[nodiscard]] bool WaitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  ModelState state_;
  std::set<pid_t> resetting_;
  std::size_t event_bytes_ = 0;
};

}  // namespace qel::host
