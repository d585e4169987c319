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

// Group name -> key -> value. The caller fills it with the wanted groups and keys, and with the default values.
using KeyFileValues = std::map<std::string, std::map<std::string, std::string>>;

// Reads the file and replaces those of the values whose keys it contains. The other values stay unchanged, also when
// the file cannot be read.
//
// A key stands at the beginning of a line. It is matched as a POSIX extended regular expression (plain text, like all
// keys of this program, is compared directly). A value is the text after the "=" and the white space that follows, up
// to the end of the line; escape sequences are not decoded. When a key occurs several times, also in a group that
// occurs twice, its last value is used. Lines are read in pieces of at most 4095 bytes, and the rest of a piece after a
// NUL byte is ignored. White space is that of the C locale. A file that is not a regular file reads as empty. At most
// about 64 MiB of a file are read.
//
// When a key is not a valid regular expression, an error is logged and reading ends. Any thread may call it.
void ReadKeyFile(const std::string& path, KeyFileValues& values);

class KeyGroup;

// Like ReadKeyFile(), for many files, with one limit for all of them: the first 32 KiB of a file are always read, but
// the further parts of all files together only up to 256 MiB.
class KeyFileReader {
 public:
  // Reads into `values`, which must outlive the reader. No group or key may be added to it meanwhile.
  explicit KeyFileReader(KeyFileValues& values);
  ~KeyFileReader();
  KeyFileReader(const KeyFileReader&) = delete;
  KeyFileReader& operator=(const KeyFileReader&) = delete;

  // Reads one file. Nothing must have been read from it before.
  void Read(RegularFile& file);

 private:
  class Buffer;

  const std::vector<KeyGroup> groups_;
  const std::unique_ptr<Buffer> buffer_;  // not on the stack: used stack memory stays with its thread
  std::size_t large_files_left_;          // bytes that may still be read after the first part of a file
};

}  // namespace qel
