// Owns a file descriptor and closes it in the destructor.
#pragma once

#include <unistd.h>

#include <utility>

namespace qel {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  // Takes ownership of the result of a system call. A negative number means no descriptor.
  explicit FileDescriptor(int adopted) : number_(adopted) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~FileDescriptor() { Close(); }

  int Get() const { return number_; }
  bool IsOpen() const { return number_ >= 0; }

  // Closes the descriptor now, for callers that need the result. Returns false when close() failed; errno holds the
  // reason. In both cases this object no longer holds the number.
  bool Close() { return number_ < 0 || close(Release()) == 0; }

  // Returns the number and gives up ownership: the caller must close it, or pass it to a new owner.
  [[nodiscard]] int Release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

}  // namespace qel
