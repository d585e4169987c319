// Doing the same to many files on several threads.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace qel {

// The threads that help with one job. Files that are in memory keep a few processors busy; when they must come from the
// disk (as at log-in), more threads are started, so that the disk has several requests at a time to serve.
class Helpers {
 public:
  // `help` is run by each helper and returns when there is nothing left to do. Few items get few helpers, or none.
  Helpers(std::size_t items, std::function<void()> help);

  // Waits for the helpers.
  ~Helpers();
  Helpers(const Helpers&) = delete;
  Helpers& operator=(const Helpers&) = delete;

  // To be told by the thread that made the object how long one item took it.
  void OnItemDone(std::chrono::steady_clock::duration took);

 private:
  void Start(std::size_t wanted);

  const std::function<void()> help_;
  const long waits_before_;  // of the calling thread
  std::vector<std::thread> threads_;
};

// Calls `make_worker()` on this thread and on helpers, and each worker with some of the numbers below `count`, so that
// each is used once. Returns when all is done.
template <typename MakeWorker>
void RunInParallel(std::size_t count, const MakeWorker& make_worker) {
  using Clock = std::chrono::steady_clock;
  std::atomic<std::size_t> next{0};
  const auto work = [&](const auto& on_item_done) {
    auto worker = make_worker();
    for (std::size_t i = next++; i < count; i = next++) {
      const Clock::time_point begin = Clock::now();
      worker(i);
      on_item_done(Clock::now() - begin);
    }
  };
  Helpers helpers(count, [&] { work([](Clock::duration) {}); });
  work([&](Clock::duration took) { helpers.OnItemDone(took); });
}

}  // namespace qel
