// The candidates: windows that the window manager lists but that are not registered yet. For each candidate this keeps
// which changes make it necessary to check the window again.
#pragma once

#include <X11/Xlib.h>

#include <span>
#include <unordered_map>
#include <vector>

namespace qel {

// The values of a window that its tests use.
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

  // Makes the window a candidate that must be checked again after a change of any aspect. `ancestors` are its ancestor
  // windows, the nearest first. Replaces an older record of the window.
  void Locate(Window candidate, std::span<const Window> ancestors);

  // From now on the candidate must be checked only after a change of these aspects. Does nothing for other windows.
  void Await(Window candidate, unsigned aspects);

  // Removes a candidate. Does nothing for other windows.
  void Forget(Window candidate);

  // Whether the window is a candidate that must be checked after a change of one of these aspects.
  bool Awaits(Window window, unsigned aspects) const;

  // The candidates inside of `ancestor` that must be checked after a change of one of these aspects.
  std::vector<Window> AwaitingIn(Window ancestor, unsigned aspects) const;

  bool GiveBackSpareRoom();

 private:
  struct Candidate {
    unsigned aspects = kAnyAspect;
    std::vector<Window> ancestors{};  // the keys of its entries in inside_
  };

  std::unordered_map<Window, Candidate> awaited_;
  std::unordered_multimap<Window, Window> inside_;  // ancestor -> candidate
};

}  // namespace qel
