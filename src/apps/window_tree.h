// The part of the window tree that was read from the server.
//
// Programs may nest windows without limit, so no function is recursive. They may also move windows while the tree is
// read, so the answers may contradict each other and even form a circle. Worker thread only.
#pragma once

#include <X11/Xlib.h>

#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "apps/session.h"

namespace qel {

// Reads the parent and the children of each window only once, with one round trip, and keeps the answer. So an object
// must be used only for one event or one top-level window. A window that does not exist has no children.
class WindowTree {
 public:
  explicit WindowTree(const Session& session) : session_(session) {}

  // The children in stacking order, lowest first. Valid as long as the tree.
  const std::vector<Window>& ChildrenOf(Window window) { return Query(window).children; }

  // The ancestors of a window, the nearest first, without the root window; empty when they cannot be found.
  std::vector<Window> AncestorsOf(Window window);

  // The window or its ancestor that is a child of the root window; the window itself when the ancestors cannot be
  // found.
  Window TopLevelOf(Window window);

  // The first known type (_NET_WM_WINDOW_TYPE) of the window and, in depth-first order, of the windows below it;
  // nullopt when there is none.
  std::optional<Atom> GetWindowType(Window window);

 private:
  struct Answer {
    bool valid = false;
    Window root = None;
    Window parent = None;
    std::vector<Window> children;
  };

  const Answer& Query(Window window);

  const Session& session_;
  std::unordered_map<Window, Answer> answers_;
};

// Visits a window and all windows below it, depth first. The children of a window are read when the walk continues from
// this window.
class WindowWalk {
 public:
  WindowWalk(WindowTree& tree, Window top) : tree_(tree), pending_{top} {}

  // Moves to the next window; the first call to the top window. Returns false when there is none.
  bool Next();

  // The current window, after a Next() that returned true.
  Window Current() const { return current_; }

 private:
  WindowTree& tree_;
  std::vector<Window> pending_;  // the last element is visited next
  Window current_ = None;
  std::unordered_set<Window> seen_;
};

// The first window below this one, in depth-first order, that the window manager manages (WM_STATE); 0 when there is
// none.
Window FindClientWindow(const Session& session, Window window);

}  // namespace qel
