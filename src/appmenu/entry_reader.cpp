#include "appmenu/entry_reader.h"

#include "files/paths.h"

namespace qel {
namespace {

// Whether one of the fields of SplitString(list, ';') is the text.
bool ListHolds(std::string_view list, std::string_view text) {
  bool holds = false;
  ForEachField(list, ';', [&](std::string_view field) { holds = holds || field == text; });
  return holds;
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
      not_show_in_(values_["Desktop Entry"]["NotShowIn"]),
      reader_(values_) {}

void EntryReader::Read(RegularFile& file) {
  for (std::string* value : {&name_, &icon_, &exec_, &categories_, &no_display_, &only_show_in_, &not_show_in_}) {
    value->clear();
  }
  reader_.Read(file);
}

EntryTexts EntryReader::Record(std::string_view path) const {
  return {.path = path, .name = name_, .icon = icon_, .exec = exec_, .categories = categories_};
}

HiddenBy EntryReader::hidden_by() const {
  if (no_display_ == "true") {
    return HiddenBy::kNoDisplay;
  }
  if (!only_show_in_.empty() && !ListHolds(only_show_in_, desktop_name_)) {
    return HiddenBy::kOnlyShowIn;
  }
  return ListHolds(not_show_in_, desktop_name_) ? HiddenBy::kNotShowIn : HiddenBy::kNothing;
}

}  // namespace qel
