// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace qel {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  // Takes over what a system call returned; a negative number is none.
  explicit FileDescriptor(int adopted) : number_(adopted) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~FileDescriptor() { Close(); }

  int Get() const { return number_; }
  bool IsOpen() const { return number_ >= 0; }

  // Closes now, for callers who want to know how it went. False when close() failed (errno says why); the number is
  // given up all the same.
  bool Close() { return number_ < 0 || close(Release()) == 0; }

  // Gives the number up without closing it: the caller, or whom it hands the number to, does that.
  [[nodiscard]] int Release() { return std::exchange(number_, -1); }

 private:
  int number_ = -1;
};

}  // namespace qel
