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
  WindowId toplevel;  // the child of the root window that contains the client: what the host knows
  WindowId client;    // the application's own window

  // Sets of pairs are ordered and unique by client window.
  friend bool operator<(const WindowPair& a, const WindowPair& b) { return a.client < b.client; }
};

using WindowPairSet = std::set<WindowPair>;

// Process id to windows; a process is present while it has at least one. Callable from any thread. Lock() gives access
// and holds `RegistryLock` as long as its result lives. Lock order: RegistryLock before the window request queue's
// lock; LaunchedLock is never taken while RegistryLock is held.
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

  // Forgets everything; nothing is told to the host.
  void ClearRegistry() { Lock()->clear(); }

  // The number of processes.
  std::size_t ProcessCount() { return Lock()->size(); }

 private:
  std::mutex registry_lock_;
  Map map_;
};

}  // namespace qel
