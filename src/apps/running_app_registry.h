// The running shared applications and their windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>

namespace qel {

// X window ids are 32 bits wide, whatever type Xlib gives them.
using WindowId = std::uint32_t;

struct WindowPair {
  WindowId toplevel;  // the child of the root window that contains the client; the host uses this id
  WindowId client;    // the application's own window

  // In a set each client window occurs once, and the pairs are sorted by client window.
  friend bool operator<(const WindowPair& a, const WindowPair& b) { return a.client < b.client; }
};

using WindowPairSet = std::set<WindowPair>;

// A map from process id to windows. A process has an entry while it has at least one window. Any thread may use it.
// Lock() gives access to the map and holds `RegistryLock` as long as its result exists. Lock order: RegistryLock before
// the lock of the window request queue; LaunchedLock is never taken while RegistryLock is held.
class RunningAppRegistry {
 public:
  using Map = std::map<std::int32_t, WindowPairSet>;

  class Locked {
   public:
    explicit Locked(RunningAppRegistry& registry) : guard_(registry.registry_lock_), map_(registry.map_) {}
    Map& operator*() const { return map_; }
    Map* operator->() const { return &map_; }

   private:
    std::unique_lock<std::mutex> guard_;
    Map& map_;
  };

  [[nodiscard]] Locked Lock() { return Locked(*this); }

  // Removes all entries. The host is not informed.
  void ClearRegistry() { Lock()->clear(); }

  // The number of processes.
  std::size_t ProcessCount() { return Lock()->size(); }

 private:
  std::mutex registry_lock_;
  Map map_;
};

}  // namespace qel
