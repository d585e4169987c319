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
//
// Opening a file asks for its beginning, if that is not in memory. So a program that opens some files before it reads
// the first waits for the disk about once and not for each of them.
class RegularFile {
 public:
  explicit RegularFile(const std::string& path);
  ~RegularFile();
  RegularFile(RegularFile&& other) noexcept;
  RegularFile& operator=(RegularFile&& other) noexcept;

  // False when there is nothing of that name or it may not be read.
  bool is_open() const { return descriptor_ >= 0; }

  // Bytes the file has now.
  std::size_t size();

  // Fills the buffer with the next bytes, as far as there are any: fewer are the last.
  std::size_t Read(std::span<char> buffer);

 private:
  int descriptor_ = -1;
  bool is_regular_ = false;
  bool is_at_end_ = false;
};

// The whole content; nothing when the file cannot be read or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit);

}  // namespace qel
