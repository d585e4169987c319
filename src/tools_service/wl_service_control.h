// The Tools Service control for Wayland sessions. It connects the worker thread to the compositor, keeps the list of
// outputs, and uses the active virtual terminal to decide whether the console belongs to this session.
//
// All communication with the compositor is on the worker thread: the listener callbacks are called only during the
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

// The event that a service's event callback gets on a Wayland connection.
struct WlOutputEvent {
  std::uint32_t type;  // kWlOutputMode
  wl_proxy* output;    // only to identify the output; the object may be destroyed already
  std::int32_t width;  // in the output's pixels
  std::int32_t height;
  std::int32_t refresh;  // in mHz, as the compositor sends it
  std::uint32_t flags;   // of the mode, as the compositor sends them: 1 current, 2 preferred
};

class QelWlServiceControl : public QelBaseServiceControl {
 public:
  // `tty_root` is the directory where the kernel publishes the active console; see CurrentConsole().
  explicit QelWlServiceControl(std::string tty_root = "/sys/class/tty");

  bool Init(key_t key, bool own_user_session) override;
  bool Deinit() override;

  // Locks the lock file of this display, which prevents a second agent in the session (SessionLock). Held until the
  // worker disconnects; the kernel releases it if the process dies.
  bool OwnUserSession() override;
  bool IsConsoleActive() override;

 protected:
  bool Connect() override;
  void Disconnect() override;
  void DispatchEvents() override;

 private:
  struct Listeners;  // the callbacks for events of the compositor

  wl_display* Display() const { return static_cast<wl_display*>(context_.display); }
  std::string SessionTty() const;
  void AddOutput(wl_proxy* registry, std::uint32_t name);
  void RemoveOutput(std::uint32_t name);

  const std::string tty_root_;
  std::string tty_name_;  // the session's console, for example "tty2"; empty: not known
  SessionLock session_lock_;
  void* display_wrapper_ = nullptr;             // the display, attached to event_queue_
  wl_proxy* registry_ = nullptr;                // null until connected, like the other pointers
  wl_event_queue* event_queue_ = nullptr;       // private to this object
  std::map<std::uint32_t, wl_proxy*> outputs_;  // by their number ("name") in the registry
  std::vector<WlOutputEvent> pending_;          // in order of arrival
};

}  // namespace qel
