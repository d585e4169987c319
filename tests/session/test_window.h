// Application windows that a session test makes and controls in every detail.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

// Xlib's own names, declared here because its header takes names from GoogleTest.
struct _XDisplay;

namespace qel::test {

using XDisplay = _XDisplay;
using Window = unsigned long;
using Atom = unsigned long;

// A process that does nothing, to own windows by _NET_WM_PID.
struct IdleProcess : ChildProcess {
  IdleProcess() : ChildProcess({.arguments = {"sleep", "3600"}}) {}
};

// What a window is made with; the defaults qualify for being reported.
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
  bool is_managed = true;  // the window manager leaves others alone
};

// A connection of its own to an X server. The functions that change something return when the server has done it,
// unless they say otherwise.
class XClient {
 public:
  explicit XClient(const std::string& display);

  Window Create(const WindowTraits& traits);
  // Makes and maps them without waiting for the server in between.
  std::vector<Window> OpenMany(const std::vector<WindowTraits>& windows);
  Window Open(const WindowTraits& traits) { return OpenMany({traits}).front(); }
  void Map(Window window);
  void Unmap(Window window);
  void Reparent(Window window, Window parent);
  void Resize(Window window, unsigned width, unsigned height);
  void Iconify(Window window);
  void Close(Window window);
  // The server serves no other client until this connection ends.
  void GrabServer();

  void SetTitle(Window window, const std::string& title);
  void SetIcon(Window window, const std::vector<std::uint32_t>& items);
  // Any property, with items of so many bits.
  void Set(Window window, const char* name, const char* type, int format, const std::vector<long>& items);
  // The same without waiting, and additions to a title, and moves past the window manager.
  void Change(Window window, const char* name, const char* type, int format, const std::vector<long>& items);
  void AppendToTitle(Window window, const std::string& text);
  void Move(Window window, int x);
  void Sync();

  // The items of a property of format 32; none when there is no such property.
  std::vector<unsigned long> Get(Window window, const char* name);
  // What the window manager lists.
  std::vector<Window> ManagedWindows() { return Get(Root(), "_NET_CLIENT_LIST"); }
  // Waits until that holds the window.
  bool WaitUntilManaged(Window window, std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // The value of WM_STATE (ICCCM), -1 when there is none.
  long WmState(Window window);
  // It and all around it are mapped.
  bool IsShown(Window window);
  Window FocusedWindow();
  // The ancestor of the window below the root.
  Window TopLevel(Window window);
  // Whether somebody has asked for the window to be closed (ICCCM) since the last look.
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
