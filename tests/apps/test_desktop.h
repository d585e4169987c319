// A desktop for tests: the test simulates the applications and the window manager, and an agent watches them.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "apps/window_tracker.h"
#include "base/owner.h"
#include "host/bytes.h"
#include "support/x_server.h"
#include "tools_service/x_library.h"

namespace qel::test {

// The test's connection to an X server. Protocol errors are ignored, also those of the agent's connection.
class XConnection : Owner<Display, XCloseDisplay> {
 public:
  explicit XConnection(const std::string& display);
  operator Display*() const { return get(); }  // NOLINT(google-explicit-constructor): used like the pointer
};

struct WindowOptions {
  Window parent = None;  // none: the root window
  unsigned int width = 100;
  unsigned int height = 100;
  const char* type = "_NET_WM_WINDOW_TYPE_NORMAL";  // null: no type
  long pid = getpid();                              // 0: no process id
  bool mapped = true;
  bool listed = true;  // in the window manager's list of clients
};

inline constexpr WindowOptions kFrame{.type = nullptr, .pid = 0, .listed = false};

// An X server. The test simulates the applications and, unless a real one runs, the window manager.
class TestDesktop {
 public:
  TestDesktop();

  const std::string& Name() const { return server_.Display(); }
  Display* Connection() const { return connection_; }
  Atom AtomOf(const char* name) const { return XInternAtom(connection_, name, False); }

  Window Make(const WindowOptions& options = {});
  void Destroy(Window window);
  void Set(Window window, const char* property, const char* type, int format, const std::vector<long>& items);
  void SetTitle(Window window, const std::string& title) {
    Set(window, "_NET_WM_NAME", "UTF8_STRING", 8, {title.begin(), title.end()});
  }
  // Publishes _NET_CLIENT_LIST.
  void SetClientList(const std::vector<long>& clients) {
    Set(DefaultRootWindow(Connection()), "_NET_CLIENT_LIST", "WINDOW", 32, clients);
  }
  void Sync() const { XSync(connection_, False); }

 private:
  XServer server_;
  XConnection connection_;
  std::vector<long> clients_;
};

// A window tracker and its messages to the host. Each message is one short text with window ids in hexadecimal.
class TestAgent {
 public:
  explicit TestAgent(const TestDesktop& desktop);

  WindowTracker& Tracker() { return tracker_; }
  const Session& GetSession() const { return session_; }
  Display* Connection() const { return connection_; }

  // Handles all events up to now, and returns the messages since the last call.
  std::vector<std::string> Pump();
  std::vector<std::string> TakeMessages() { return std::exchange(messages_, {}); }
  void HandleEvents();
  void Enumerate() {
    tracker_.EnumerateWindows();
    HandleEvents();
  }

  std::function<void()> on_message;  // called once, during the next message
  bool describe_messages = true;     // false: the texts are empty, which saves time in benchmarks

  RunningAppRegistry registry;
  LaunchedProcessTable launched;
  DesktopEntryRegistry entries;
  IconThemes icon_themes;
  GuestCommands guest_commands{[this](TgRequest& request) { return Record(request); }};

 private:
  bool Record(const TgRequest& request);

  const TestDesktop& desktop_;
  XConnection connection_;
  Session session_;
  IconFinder icons_{icon_themes};
  WindowTracker tracker_{session_, guest_commands, registry, launched, entries, icons_};
  std::vector<std::string> messages_;
};

// "add <toplevel> <name>|<title> <icon>". The icon is "WxH", with a "+" if there is also a small icon.
inline std::string Added(Window toplevel, const std::string& name, const std::string& title,
                         const std::string& icon = "0x0") {
  return host::Format("add %lx ", toplevel) + name + "|" + title + " " + icon;
}
inline std::string Removed(Window toplevel) {
  return host::Format("remove %lx", toplevel);
}

}  // namespace qel::test
