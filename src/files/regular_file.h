// Reading a file that anybody may have put there: never more than a bounded amount, and never something that blocks.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/file_descriptor.h"

namespace qel {

// A regular file opened for reading. Whatever else has the name (a FIFO, a device, a folder) reads as an empty file.
class RegularFile {
 public:
  explicit RegularFile(const std::string& path);

  // False when there is nothing of that name or it may not be read.
  bool is_open() const { return file_.IsOpen(); }

  // Whether it could not be opened because too many files are open.
  bool lacks_descriptor() const { return lacks_descriptor_; }

  // Bytes the file had when it was opened.
  std::size_t size() const { return size_; }

  // Asks the system to fetch the file's beginning from the disk, without waiting for it.
  void FetchAhead() const;

  // Fills the buffer with the next bytes, as far as there are any: fewer are the last.
  std::size_t Read(std::span<char> buffer);

 private:
  FileDescriptor file_;
  bool lacks_descriptor_ = false;
  bool has_more_ = false;  // a regular file, not read to its end
  std::size_t size_ = 0;
};

// Opens files and calls `use` with the index and the file of each, in the order of the paths; false ends it. Up to 64
// files are open ahead of the one that is used: so the program waits for the disk about once, and not for each file.
void ForEachFileAhead(const std::vector<std::string>& paths, const std::function<bool(std::size_t, RegularFile&)>& use);

// The whole content; nothing when the file cannot be read or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit);

}  // namespace qel
