// Reading a file that anybody may have put there: never more than a bounded amount, and never something that blocks.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qel {

// A regular file opened for reading. Whatever else has the name (a FIFO, a device, a folder) reads as an empty file.
// Opening, reading and closing a file that fits into the caller's buffer takes four system calls, and three when it is
// in memory and read by ReadCached().
class RegularFile {
 public:
  explicit RegularFile(const std::string& path);

  // A file by its name in an open folder. The folder need not stay open.
  RegularFile(int folder, const char* name);

  ~RegularFile();
  RegularFile(RegularFile&& other) noexcept;
  RegularFile& operator=(RegularFile&& other) noexcept;

  // False when there is nothing of that name or it may not be read.
  bool is_open() const { return descriptor_ >= 0; }

  // Whether it could not be opened because too many files are open.
  bool lacks_descriptor() const { return lacks_descriptor_; }

  // Bytes the file has now.
  std::size_t size();

  // Fills the buffer with the next bytes, as far as there are any: fewer are the last.
  std::size_t Read(std::span<char> buffer);

  // Read() for the first time, if that need not wait for the disk. Otherwise nothing is read, and the system is asked
  // to fetch the file's beginning: a program that does this with some files before it reads the first waits for the
  // disk about once and not for each of them.
  //
  // Some file systems cannot tell what is in memory. `tells` starts as true and is cleared when there turns out to be
  // one of them; other files are only asked for then. (Old kernels tell, but do not begin to fetch.)
  std::optional<std::size_t> ReadCached(std::span<char> buffer, bool& tells);

 private:
  std::size_t Fill(std::span<char> buffer, std::size_t filled);

  int descriptor_ = -1;
  bool lacks_descriptor_ = false;
  bool is_readable_ = false;  // known to be a regular file or a disk
  bool is_regular_ = false;
  bool is_at_end_ = false;
  std::size_t position_ = 0;
};

// Opens one file after the other. Those that follow another of their folder are opened relative to it, which saves the
// system the way to it.
class FileOpener {
 public:
  FileOpener() = default;
  ~FileOpener();
  FileOpener(const FileOpener&) = delete;
  FileOpener& operator=(const FileOpener&) = delete;

  RegularFile Open(const char* path);

  // For RegularFile::ReadCached(). It is not asked about each folder again whether its file system is one that tells.
  bool& tells_cached() { return tells_cached_; }

 private:
  std::string folder_path_;  // of the file opened last, with the "/" behind it
  int folder_ = -1;          // -1: not opened, since no second file of it was asked for
  bool tells_cached_ = true;
};

// The whole content; nothing when the file cannot be read or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit);

}  // namespace qel
