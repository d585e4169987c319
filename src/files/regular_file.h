// Safe reading of files that any user may have written: limited in size, and never blocking on a FIFO or a device.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/file_descriptor.h"

namespace qel {

// A regular file opened for reading. A file of another type (a FIFO, a device, a folder) reads as an empty file. One
// thread at a time may use it; the destructor closes the file.
class RegularFile {
 public:
  explicit RegularFile(const std::string& path);

  // False when the file does not exist or could not be opened for another reason.
  bool is_open() const { return file_.IsOpen(); }

  // Whether the file could not be opened because the process or the system has too many open files.
  bool lacks_descriptor() const { return lacks_descriptor_; }

  // The file's size in bytes when it was opened; 0 for other types.
  std::size_t size() const { return size_; }

  // Asks the system to load the beginning of the file from disk, and does not wait for it.
  void FetchAhead() const;

  // Fills the buffer with the next bytes and returns their number. Fewer than the buffer holds: the file has ended, or
  // could not be read further.
  std::size_t Read(std::span<char> buffer);

 private:
  FileDescriptor file_;
  bool lacks_descriptor_ = false;
  bool has_more_ = false;  // a regular file, not read to its end
  std::size_t size_ = 0;
};

// Opens the files and calls `use` with the index and the file, in the order of the paths, until `use` returns false. Up
// to 64 files are opened in advance and loaded from disk at the same time, so that the program does not wait for each
// file in turn.
void ForEachFileAhead(const std::vector<std::string>& paths, const std::function<bool(std::size_t, RegularFile&)>& use);

// Returns the whole content; nullopt when the file cannot be opened or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit);

}  // namespace qel
