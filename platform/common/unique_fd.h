// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace qel {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  UniqueFd(UniqueFd&& other) noexcept : descriptor_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int Get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  // Closes it now.
  void Reset() {
    if (descriptor_ >= 0) {
      close(std::exchange(descriptor_, -1));
    }
  }
  // The caller owns it from now on.
  [[nodiscard]] int Release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

}  // namespace qel
