// Owns a file descriptor and closes it in the destructor. A negative number means none.
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

  // Closes the descriptor now.
  void Reset() {
    if (descriptor_ >= 0) {
      close(std::exchange(descriptor_, -1));
    }
  }
  // Returns the descriptor and passes its ownership to the caller.
  [[nodiscard]] int Release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

}  // namespace qel
