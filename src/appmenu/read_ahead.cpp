#include "appmenu/read_ahead.h"

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

namespace qel {
namespace {

// A file in memory takes some 5 µs; one from the fastest disk takes longer than this.
constexpr std::chrono::microseconds kSlow{50};
constexpr int kSlowFiles = 2;  // one alone may have been held up by something else
constexpr std::size_t kHelpers = 8;
constexpr std::size_t kFewFiles = 8;  // left to read: not worth the threads

}  // namespace

ReadAhead::~ReadAhead() {
  next_ = paths_.size();
  for (std::thread& helper : helpers_) {
    helper.join();
  }
}

void ReadAhead::End(std::size_t index, Clock::duration took) {
  if (took >= kSlow && helpers_.empty() && ++slow_files_ == kSlowFiles) {
    StartHelpers(index + 1);
  }
}

void ReadAhead::StartHelpers(std::size_t first) {
  if (paths_.size() - first <= kFewFiles) {
    return;
  }
  next_ = first;
  try {
    while (helpers_.size() < kHelpers) {
      helpers_.emplace_back([this] { Ask(); });
    }
  } catch (const std::system_error&) {
    // No more threads to be had: those there are will do, and the reader manages without any.
  }
}

void ReadAhead::Ask() {
  for (std::size_t i = next_++; i < paths_.size(); i = next_++) {
    const int descriptor = open(paths_[i].c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor >= 0) {
      posix_fadvise(descriptor, 0, 0, POSIX_FADV_WILLNEED);
      close(descriptor);
    }
  }
}

}  // namespace qel
