// The Tools Service control for Wayland sessions: connects the worker thread to the compositor, keeps the list of its
// outputs, and tells by the virtual terminal whether the session is on the console.
//
// Everything that touches the compositor runs on the worker thread: the listener callbacks are called only inside the
// round trips that this class makes on its private event queue.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools_service/base_service_control.h"
#include "tools_service/session_lock.h"
#include "tools_service/wayland_binding.h"

namespace qel {

inline constexpr std::uint32_t kWlOutputMode = 1;

// What a service's event callback receives on a Wayland connection.
struct WlOutputEvent {
  std::uint32_t type;  // kWlOutputMode
  wl_proxy* output;    // tells outputs apart; it may be gone when the event is handed out
  std::int32_t width;  // in the output's pixels
  std::int32_t height;
  std::int32_t refresh;  // in mHz, as the compositor sends it
  std::uint32_t flags;   // of the mode, as the compositor sends them: 1 current, 2 preferred
};

class QelWlServiceControl : public QelBaseServiceControl {
 public:
  // `tty_root` is the directory in which the kernel names the active virtual terminal.
  explicit QelWlServiceControl(std::string tty_root = "/sys/class/tty");

  bool Init(key_t key, bool own_user_session) override;
  bool Deinit() override;

  // Takes the lock file of this display in the user's run-time directory, which keeps a second agent out of the
  // session. Held until the worker ends; the kernel gives it back if the process dies.
  bool OwnUserSession() override;
  bool IsConsoleActive() override;

 protected:
  bool Connect() override;
  void Disconnect() override;
  void DispatchEvents() override;

 private:
  struct Listeners;  // the callbacks that the compositor's events arrive at

  wl_display* Display() const { return static_cast<wl_display*>(context_.display); }
  std::string SessionTty() const;
  void AddOutput(wl_proxy* registry, std::uint32_t name);
  void RemoveOutput(std::uint32_t name);

  const std::string tty_root_;
  std::string tty_name_;  // "tty" and a number, or another console's name; empty: not known
  SessionLock session_lock_;
  void* display_wrapper_ = nullptr;             // the display, attached to event_queue_
  wl_proxy* registry_ = nullptr;                // null, like the other two, until connected
  wl_event_queue* event_queue_ = nullptr;       // private to this object
  std::map<std::uint32_t, wl_proxy*> outputs_;  // by name in the registry
  std::vector<WlOutputEvent> pending_;          // in order of arrival
};

}  // namespace qel
