// Reading one desktop file.
#pragma once

#include <string>
#include <string_view>

#include "appmenu/desktop_entries.h"
#include "appmenu/menu_observer.h"
#include "files/key_file.h"

namespace qel {

// Reads desktop files, one after the other, as the desktop of the given name sees them.
class EntryReader {
 public:
  explicit EntryReader(std::string_view desktop_name);

  // See KeyFileReader.
  void Read(RegularFile& file);

  // The record of the file read last, which has this path. A file that cannot be read gives one with the path alone.
  // Its texts are the reader's and the caller's and stay until the next file is read.
  EntryTexts Record(std::string_view path) const;

  // Why that file's entry is hidden, if it is.
  HiddenBy hidden_by() const;

 private:
  const std::string_view desktop_name_;
  KeyFileValues values_;
  std::string& name_;  // this and the others: in values_
  std::string& icon_;
  std::string& exec_;
  std::string& categories_;
  std::string& no_display_;
  std::string& only_show_in_;
  std::string& not_show_in_;
  KeyFileReader reader_;
};

}  // namespace qel
