#include "appmenu/parallel.h"

#include <sys/resource.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace qel {
namespace {

constexpr std::size_t kItemsPerHelper = 64;  // for which starting a thread pays when the files are in memory
constexpr std::size_t kMaxProcessors = 4;    // the rest of the desktop is starting too
constexpr std::size_t kHelpersForDisk = 12;

// A file in memory takes some 3 µs, one from a fast disk 20.
constexpr std::chrono::microseconds kSlow{15};
constexpr long kWaits = 5;

// How often the calling thread has given up the processor to wait for something. That an item was slow says little by
// itself: the thread may have been preempted.
long CountWaits() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

}  // namespace

Helpers::Helpers(std::size_t items, std::function<void()> help) : help_(std::move(help)), waits_before_(CountWaits()) {
  const std::size_t processors = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMaxProcessors);
  Start(std::min(processors - 1, items / kItemsPerHelper));
}

Helpers::~Helpers() {
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void Helpers::OnItemDone(std::chrono::steady_clock::duration took) {
  if (took >= kSlow && threads_.size() < kHelpersForDisk && CountWaits() - waits_before_ >= kWaits) {
    Start(kHelpersForDisk);
  }
}

void Helpers::Start(std::size_t wanted) {
  try {
    while (threads_.size() < wanted) {
      threads_.emplace_back(help_);
    }
  } catch (const std::system_error&) {
    // No more threads to be had: those there are will do, and the caller manages without any.
  }
}

}  // namespace qel
