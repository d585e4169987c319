// The part of the tree of windows that the server was asked for.
//
// Programs nest their windows as deep as they like, so nothing here is recursive. They also move windows while the
// server is asked, so the answers may contradict each other and even form a circle. Worker thread only.
#pragma once

#include <X11/Xlib.h>

#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "apps/session.h"

namespace qel {

// Asks for a window's parent and children once, one round trip, and remembers the answer. So it is used for one event
// or one top-level window, and thrown away. A window that is gone has no children.
class WindowTree {
 public:
  explicit WindowTree(const Session& session) : session_(session) {}

  // In stacking order, lowest first. Valid as long as the tree.
  const std::vector<Window>& ChildrenOf(Window window) { return Query(window).children; }

  // The windows around this one, the nearest first, without the root window; none when they cannot be found out.
  std::vector<Window> AncestorsOf(Window window);

  // The ancestor of the window, or itself, that is a child of the root window; the window itself when that cannot be
  // found out.
  Window TopLevelOf(Window window);

  // The first known type among those of the window and, in depth-first order, of the windows below it.
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

// Visits a window and everything below it, depth first. The children of a window are asked for when the walk goes on
// from it.
class WindowWalk {
 public:
  WindowWalk(WindowTree& tree, Window top) : tree_(tree), pending_{top} {}

  // Goes on to the next window, at first to the top one. False when there is none.
  bool Next();

  // The window that the last successful Next() went to.
  Window Current() const { return current_; }

 private:
  WindowTree& tree_;
  std::vector<Window> pending_;  // the next one is the last
  Window current_ = None;
  std::unordered_set<Window> seen_;
};

// The first window below this one, in depth-first order, that the window manager manages; 0 when there is none.
Window FindClientWindow(const Session& session, Window window);

}  // namespace qel
