// Reading values from INI-style key files: desktop entries, directory entries, icon theme indexes, settings files.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/regular_file.h"

namespace qel {

// Group name -> key -> value. Filled by the caller with what is wanted, each value holding its default.
using KeyFileValues = std::map<std::string, std::map<std::string, std::string>>;

// Replaces the wanted values that the file holds; all others stay as they are, also when the file cannot be read.
//
// A key begins its line and is matched as a POSIX extended regular expression (plain texts, which all keys of this
// program are, are compared directly). A value is the text behind "=" and the white space that follows it, up to the
// end of the line, with the bytes that stand there; of several lines with one key the last counts, also when the group
// occurs twice. Lines are taken in pieces of at most 4095 bytes, and what follows a NUL byte in a piece is not seen.
// White space is that of the C locale. Anything but a regular file reads as empty, and no more than the first 64 MiB
// of a file are read.
//
// A key that is no valid regular expression is logged and ends the reading. Keeps no state; any thread may call it.
void ReadKeyFile(const std::string& path, KeyFileValues& values);

class KeyGroup;

// ReadKeyFile() for one file after the other. Of the first 32 KiB of each there is no end, but of what stands behind
// them no more than 256 MiB are read of all files together.
class KeyFileReader {
 public:
  // Reads into `values`, which must outlive the reader and to which no group or key may be added meanwhile.
  explicit KeyFileReader(KeyFileValues& values);
  ~KeyFileReader();
  KeyFileReader(const KeyFileReader&) = delete;
  KeyFileReader& operator=(const KeyFileReader&) = delete;

  // From a file that is open and of which nothing was read.
  void Read(RegularFile& file);

 private:
  class Buffer;

  const std::vector<KeyGroup> groups_;
  const std::unique_ptr<Buffer> buffer_;  // not on the stack, of which a thread keeps what it has used once
  std::size_t large_files_left_;          // bytes that may be read behind the first part of files
};

}  // namespace qel
