// Reading one desktop file.
#pragma once

#include <string>
#include <string_view>

#include "appmenu/desktop_entries.h"
#include "appmenu/key_file.h"
#include "appmenu/menu_observer.h"

namespace qel {

// Reads desktop files, one after the other, as the desktop of the given name sees them.
class EntryReader {
 public:
  explicit EntryReader(std::string_view desktop_name);
  EntryReader(const EntryReader&) = delete;
  EntryReader& operator=(const EntryReader&) = delete;

  // The record of a file, opened at its path, and why it is hidden if it is. A file that cannot be read gives one with
  // the path alone.
  DesktopEntry Read(const std::string& path, RegularFile& file, HiddenBy& hidden_by);

 private:
  const std::string_view desktop_name_;
  KeyFileValues values_;
  const std::string& name_;  // this and the others: in values_
  const std::string& icon_;
  const std::string& exec_;
  const std::string& categories_;
  const std::string& no_display_;
  const std::string& only_show_in_;
  const std::string& not_show_in_;
};

}  // namespace qel
