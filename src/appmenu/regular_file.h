// Reading a file that anybody may have put there: never more than a bounded amount, and never something that blocks.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qel {

// A regular file opened for reading. Whatever else has the name (a FIFO, a device, a folder) reads as an empty file.
// Opening, reading and closing a file that fits into the caller's buffer takes four system calls.
class RegularFile {
 public:
  explicit RegularFile(const std::string& path);
  ~RegularFile();
  RegularFile(const RegularFile&) = delete;
  RegularFile& operator=(const RegularFile&) = delete;

  // False when there is nothing of that name or it may not be read.
  bool is_open() const { return descriptor_ >= 0; }

  // Bytes the file had when it was opened.
  std::size_t size() const { return size_; }

  // Fills the buffer with the next bytes, as far as there are any; 0 at the end, and after an error.
  std::size_t Read(std::span<char> buffer);

 private:
  int descriptor_ = -1;
  std::size_t size_ = 0;
  std::size_t left_ = 0;  // bytes not read yet
};

// The whole content; nothing when the file cannot be read or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit);

}  // namespace qel
