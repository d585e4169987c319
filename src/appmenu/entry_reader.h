// Reads desktop files (freedesktop.org Desktop Entry standard).
#pragma once

#include <string>
#include <string_view>

#include "appmenu/desktop_entries.h"
#include "appmenu/menu_observer.h"
#include "files/key_file.h"

namespace qel {

// Reads desktop files, one after the other. The desktop name decides which entries are hidden. For one thread.
class EntryReader {
 public:
  explicit EntryReader(std::string_view desktop_name);

  // Reads a file as KeyFileReader::Read() does; replaces the values of the previous file.
  void Read(RegularFile& file);

  // The record of the last file, whose path is `path`. If that file could not be read, only the path is set. The texts
  // refer to this object and to `path`; they are valid until the next Read().
  EntryTexts Record(std::string_view path) const;

  // Whether and why the entry of the last file is hidden.
  HiddenBy hidden_by() const;

 private:
  const std::string_view desktop_name_;
  KeyFileValues values_;
  std::string& name_;  // these references point into values_
  std::string& icon_;
  std::string& exec_;
  std::string& categories_;
  std::string& no_display_;
  std::string& only_show_in_;
  std::string& not_show_in_;
  KeyFileReader reader_;
};

}  // namespace qel
