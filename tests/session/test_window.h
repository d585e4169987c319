// Application windows that a session test creates and controls.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

// Xlib's types, declared here because Xlib's header has macros that conflict with GoogleTest.
struct _XDisplay;

namespace qel::test {

using XDisplay = _XDisplay;
using Window = unsigned long;
using Atom = unsigned long;

// A process that does nothing. Windows name it in _NET_WM_PID.
struct IdleProcess : ChildProcess {
  IdleProcess() : ChildProcess({.arguments = {"sleep", "3600"}}) {}
};

// The properties of a new window. The agent reports a window with the defaults and a process id.
struct WindowTraits {
  std::int32_t pid = 0;  // 0: no _NET_WM_PID
  std::string title = "window";
  std::string type = "_NET_WM_WINDOW_TYPE_NORMAL";  // empty: no type
  int x = 10;
  int y = 10;
  unsigned width = 200;
  unsigned height = 100;
  std::vector<std::uint32_t> icon = {};  // the items of _NET_WM_ICON; empty: none
  std::string window_class = {};         // the bytes of WM_CLASS; empty: none
  Window parent = 0;                     // 0: the root
  bool wants_focus = true;
  bool is_managed = true;  // false: the window manager ignores the window
};

// A separate connection to an X server. Functions that change something return after the server has done it, unless
// they say otherwise.
class XClient {
 public:
  explicit XClient(const std::string& display);

  Window Create(const WindowTraits& traits);
  // Creates and maps the windows, and does not wait for the server between them.
  std::vector<Window> OpenMany(const std::vector<WindowTraits>& windows);
  Window Open(const WindowTraits& traits) { return OpenMany({traits}).front(); }
  void Map(Window window);
  void Unmap(Window window);
  void Reparent(Window window, Window parent);
  void Resize(Window window, unsigned width, unsigned height);
  void Iconify(Window window);
  void Close(Window window);
  // Grabs the server: it serves no other client until this connection ends.
  void GrabServer();

  void SetTitle(Window window, const std::string& title);
  void SetIcon(Window window, const std::vector<std::uint32_t>& items);
  // Sets any property. `format` is the size of an item in bits.
  void Set(Window window, const char* name, const char* type, int format, const std::vector<long>& items);
  // These do not wait for the server: set a property, append to the title, move without the window manager.
  void Change(Window window, const char* name, const char* type, int format, const std::vector<long>& items);
  void AppendToTitle(Window window, const std::string& text);
  void Move(Window window, int x);
  void Sync();

  // The items of a property of format 32, or none if there is no such property.
  std::vector<unsigned long> Get(Window window, const char* name);
  // The windows that the window manager lists.
  std::vector<Window> ManagedWindows() { return Get(Root(), "_NET_CLIENT_LIST"); }
  // Waits until the list above contains the window.
  bool WaitUntilManaged(Window window, std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // The value of WM_STATE (ICCCM), or -1 without the property.
  long WmState(Window window);
  // Whether the window and all its ancestors are mapped.
  bool IsShown(Window window);
  Window FocusedWindow();
  // The window's ancestor that is a child of the root, or the window itself.
  Window TopLevel(Window window);
  // Whether the window was asked to close (ICCCM) since the last call.
  bool WasAskedToClose(Window window);

  Atom Intern(const char* name);
  Window Root() const;

 private:
  Window Make(const WindowTraits& traits);

  struct Closer {
    void operator()(XDisplay* display) const;
  };
  std::unique_ptr<XDisplay, Closer> display_;
  std::map<std::string, Atom> atoms_;
};

}  // namespace qel::test
