// The windows that the window manager lists and that are not registered yet: what has to change before another look at
// one of them is worth its time.
#pragma once

#include <X11/Xlib.h>

#include <span>
#include <unordered_map>
#include <vector>

namespace qel {

// What the tests of a window look at.
enum WindowAspect : unsigned {
  kSize = 1U << 0,
  kType = 1U << 1,
  kMapState = 1U << 2,
  kProcessId = 1U << 3,
  kAnyAspect = (1U << 4) - 1,
};

// Worker thread only. Makes no X call.
class WindowCandidates {
 public:
  bool IsEmpty() const { return awaited_.empty(); }

  // Makes the window a candidate that a change of any aspect makes worth a look. `ancestors` are the windows around it,
  // the nearest first. What was known of the window before is forgotten.
  void Locate(Window candidate, std::span<const Window> ancestors);

  // From now on only a change of these aspects makes the candidate worth a look. Does nothing for other windows.
  void Await(Window candidate, unsigned aspects);

  // The window is no candidate any more. Does nothing when it is none.
  void Forget(Window candidate);

  // The window is a candidate, and a change of one of these aspects makes it worth a look.
  bool Awaits(Window window, unsigned aspects) const;

  // The candidates inside of `ancestor` that a change of one of these aspects makes worth a look.
  std::vector<Window> AwaitingIn(Window ancestor, unsigned aspects) const;

 private:
  struct Candidate {
    unsigned aspects = kAnyAspect;
    std::vector<Window> ancestors{};  // in inside_
  };

  std::unordered_map<Window, Candidate> awaited_;
  std::unordered_multimap<Window, Window> inside_;  // the candidates by each of their ancestors
};

}  // namespace qel
