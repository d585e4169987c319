#include "appmenu/entry_reader.h"

#include "appmenu/paths.h"

namespace qel {
namespace {

// Whether SplitString(list, ';') holds the text.
bool ListHolds(std::string_view list, std::string_view text) {
  while (!list.empty()) {
    const std::size_t end = list.find(';');
    if (list.substr(0, end) == text) {
      return true;
    }
    list = end == std::string_view::npos ? std::string_view{} : list.substr(end + 1);
  }
  return false;
}

}  // namespace

EntryReader::EntryReader(std::string_view desktop_name)
    : desktop_name_(desktop_name),
      name_(values_["Desktop Entry"]["Name"]),
      icon_(values_["Desktop Entry"]["Icon"]),
      exec_(values_["Desktop Entry"]["Exec"]),
      categories_(values_["Desktop Entry"]["Categories"]),
      no_display_(values_["Desktop Entry"]["NoDisplay"]),
      only_show_in_(values_["Desktop Entry"]["OnlyShowIn"]),
      not_show_in_(values_["Desktop Entry"]["NotShowIn"]) {}

DesktopEntry EntryReader::Read(const std::string& path, RegularFile& file, HiddenBy& hidden_by) {
  for (auto& [key, value] : values_.begin()->second) {
    value.clear();
  }
  ReadKeyFile(file, values_);
  hidden_by = HiddenBy::kNothing;
  if (no_display_ == "true") {
    hidden_by = HiddenBy::kNoDisplay;
  } else if (!only_show_in_.empty() && !ListHolds(only_show_in_, desktop_name_)) {
    hidden_by = HiddenBy::kOnlyShowIn;
  } else if (ListHolds(not_show_in_, desktop_name_)) {
    hidden_by = HiddenBy::kNotShowIn;
  }
  DesktopEntry entry;
  entry.path = NormalizePath(path);
  entry.name = name_;
  entry.icon = icon_;
  entry.exec = exec_;
  entry.categories = SplitString(categories_, ';');
  entry.hidden = hidden_by != HiddenBy::kNothing;
  return entry;
}

}  // namespace qel
