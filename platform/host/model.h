// What a host shows of its guest: the state that an agent's messages add up to, and the list of the messages.
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

// What the host did with a message.
enum class Outcome {
  kTaken,        // answered with success; the model follows it
  kResubmit,     // to be submitted again
  kFailed,       // answered with the failure status
  kRejected,     // answered with another status
  kWriteFailed,  // the write itself failed
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
  std::vector<std::string> violations;  // bytes that the message format does not allow
  std::vector<std::string> remarks;     // allowed, but odd after what came before
  std::optional<std::string> command;   // of a fetch: the command it got
};

struct Window {
  std::uint32_t id = 0;
  pid_t agent = 0;  // who reported it
  std::string name;
  std::string path;
  std::string title;
  Icon icon;
  std::optional<Icon> small_icon;
};

struct Application {
  std::uint32_t pid = 0;
  std::map<std::uint32_t, Window> windows;  // by id
  // Changes of title and icon name an application's own window, which lies within the one that was reported where the
  // window manager adds frames. Those that name no reported window are kept here.
  std::map<std::uint32_t, std::string> inner_titles;
  std::map<std::uint32_t, Icon> inner_icons;
};

struct ModelState {
  std::optional<bool> tool_active;            // not set: nothing heard yet
  std::map<pid_t, RegisterService> services;  // by agent
  std::map<std::uint32_t, Application> applications;
  std::set<std::uint32_t> hidden_windows;
  std::optional<HiddenWindows> last_hidden;  // the last reply to a hide command
  std::optional<AppMenu> menu;
  bool enumeration_finished = false;                  // since the tool became active or was reset
  std::array<std::uint64_t, kMessageKinds> counts{};  // of taken messages
  std::uint64_t messages = 0;                         // all, taken or not
  std::uint64_t violations = 0;
  std::uint64_t remarks = 0;
  std::deque<Event> events;  // the newest; old ones go when there are very many or their icons take much memory

  std::uint64_t Count(MessageKind kind) const { return counts[static_cast<std::size_t>(kind)]; }
  // The window of that id, whichever application it belongs to; nullptr if there is none.
  const Window* FindWindow(std::uint32_t id) const;
  // The first window whose title is this one.
  const Window* FindTitle(const std::string& title) const;
  std::size_t WindowCount() const;
};

// Safe from any thread.
class Model {
 public:
  using Predicate = std::function<bool(const ModelState&)>;

  // Takes the message up: gives it number and time, follows it if it was taken. Adds remarks to those it has.
  // Returns its number.
  std::uint64_t Apply(Event event);
  // The agent fetched this command. After a reset what it says next about its state starts from nothing; a window that
  // it is to activate is no longer hidden.
  void CommandServed(pid_t agent, const HostCommand& command);

  // Calls `reader` with the state, which stands still meanwhile. Not to be called from within itself.
  void Read(const std::function<void(const ModelState&)>& reader) const;
  ModelState Snapshot() const;
  // Waits until the predicate holds; it is asked anew after each message. False when the time is over first.
  [[nodiscard]] bool WaitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  ModelState state_;
  std::set<pid_t> resetting_;
  std::size_t event_bytes_ = 0;
};

}  // namespace qel::host
