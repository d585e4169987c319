// Application windows that a session test makes and controls in every detail.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
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
class IdleProcess {
 public:
  IdleProcess() : process_({.arguments = {"sleep", "600"}}) {}
  std::int32_t Pid() const { return process_.Pid(); }
  void End() {
    process_.Kill(9);
    process_.Wait();
  }
  std::optional<ChildStatus> WaitForEnd() { return process_.Wait(); }

 private:
  ChildProcess process_;
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
};

// A connection of its own to an X server. The functions that change something return when the server has done it.
class XClient {
 public:
  explicit XClient(const std::string& display);

  Window Create(const WindowTraits& traits);
  void Map(Window window);
  Window Open(const WindowTraits& traits) {
    const Window window = Create(traits);
    Map(window);
    return window;
  }
  // Makes and maps them without waiting for the server in between.
  std::vector<Window> OpenMany(const std::vector<WindowTraits>& windows);
  // A bare window on the root, as a window manager makes them around those of applications.
  Window CreateFrame();
  void Close(Window window);
  void Unmap(Window window);
  void Resize(Window window, unsigned width, unsigned height);
  void SetTitle(Window window, const std::string& title);
  void SetIcon(Window window, const std::vector<std::uint32_t>& items);

  // Any property; `data` holds the items as Xlib wants them for `format` (a long each for 32).
  void SetProperty(Window window, const char* name, const char* type, int format, const void* data, int items);
  void SetCardinal(Window window, const char* name, std::uint32_t value);
  void SetAtom(Window window, const char* name, const char* value);
  void AppendToTitle(Window window, const std::string& text);
  // Changes title and icon in turn, as fast as the server takes it; the last title is `last`. Returns how many changes.
  long Flood(Window window, std::chrono::milliseconds time, const std::string& last);
  // Moves the window, past the window manager, as often as that can be done.
  void FloodMoves(Window window, std::chrono::milliseconds time);

  // Nobody else is served until this connection ends.
  void GrabServer();

  // Whether somebody has asked for the window to be closed (ICCCM) since the last look.
  bool WasAskedToClose(Window window);

  Atom Intern(const char* name);
  // Whether somebody made this atom.
  bool Exists(const char* name);
  bool RootHas(const char* property);
  void Iconify(Window window);

  // _NET_CLIENT_LIST.
  std::vector<Window> ManagedWindows();
  // Waits until the window manager has taken the window into _NET_CLIENT_LIST.
  bool WaitUntilManaged(Window window, std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // It and all around it are mapped.
  bool IsShown(Window window);

  // Plays the window manager: lists these windows on the root.
  void SetClientList(const std::vector<Window>& windows);

  // The value of WM_STATE (ICCCM), -1 when there is none.
  long WmState(Window window);
  Window FocusedWindow();
  // The ancestor of the window below the root.
  Window TopLevel(Window window);
  // Children of the root from bottom to top.
  std::vector<Window> Stacking();

  Window Root() const;
  void Sync();

 private:
  Window Make(const WindowTraits& traits);
  // Without waiting.
  void Change(Window window, const char* name, const char* type, int format, const void* data, int items,
              int mode = 0);  // PropModeReplace
  std::vector<unsigned long> ReadLongs(Window window, const char* name, Atom type);

  struct Closer {
    void operator()(XDisplay* display) const;
  };
  std::unique_ptr<XDisplay, Closer> display_;
  std::map<std::string, Atom> atoms_;
};

}  // namespace qel::test
