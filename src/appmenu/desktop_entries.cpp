#include "appmenu/desktop_entries.h"

#include <algorithm>
#include <string>
#include <utility>

#include "files/paths.h"

namespace qel {
const std::map<std::string_view, std::string_view>& DesktopIdAliases() {
  static const std::map<std::string_view, std::string_view> aliases = {
      {"org.gnome.baobab.desktop", "baobab.desktop"},
      {"org.gnome.Cheese.desktop", "cheese.desktop"},
      {"ca.desrt.dconf-editor.desktop", "dconf-editor.desktop"},
      {"org.gnome.FileRoller.desktop", "file-roller.desktop"},
      {"gnome-calculator.desktop", "gcalctool.desktop"},
      {"org.gnome.gedit.desktop", "gedit.desktop"},
      {"gnome-chess.desktop", "glchess.desktop"},
      {"five-or-more.desktop", "glines.desktop"},
      {"four-in-a-row.desktop", "gnect.desktop"},
      {"gnome-robots.desktop", "gnobots2.desktop"},
      {"org.gnome.Boxes.desktop", "gnome-boxes.desktop"},
      {"org.gnome.clocks.desktop", "gnome-clocks.desktop"},
      {"org.gnome.Contacts.desktop", "gnome-contacts.desktop"},
      {"org.gnome.Documents.desktop", "gnome-documents.desktop"},
      {"org.gnome.font-viewer.desktop", "gnome-font-viewer.desktop"},
      {"org.gnome.Nibbles.desktop", "gnome-nibbles.desktop"},
      {"org.gnome.Photos.desktop", "gnome-photos.desktop"},
      {"org.gnome.Screenshot.desktop", "gnome-screenshot.desktop"},
      {"org.gnome.Software.desktop", "gnome-software.desktop"},
      {"org.gnome.Terminal.desktop", "gnome-terminal.desktop"},
      {"org.gnome.Weather.Application.desktop", "gnome-weather.desktop"},
      {"gnome-mines.desktop", "gnomine.desktop"},
      {"gnome-tetravex.desktop", "gnotravex.desktop"},
      {"gnome-klotski.desktop", "gnotski.desktop"},
      {"tali.desktop", "gtali.desktop"},
      {"org.gnome.Nautilus.desktop", "nautilus.desktop"},
      {"org.gnome.Polari.desktop", "polari.desktop"},
      {"org.gnome.Totem.desktop", "totem.desktop"},
      {"org.gnome.DiskUtility.desktop", "gnome-disks.desktop"},
  };
  return aliases;
}

const char* CurrentDesktopName(DesktopKind kind) {
  switch (kind) {
    case DesktopKind::kUnity:
      return "Unity";
    case DesktopKind::kGnome:
      return "GNOME";
    case DesktopKind::kKde:
      return "KDE";
    case DesktopKind::kXfce:
      return "XFCE";
    case DesktopKind::kLxde:
      return "LXDE";
  }
  return "Old";
}

std::pair<DesktopEntryRegistry::Position, bool> DesktopEntryRegistry::Find(std::string_view id) {
  const Position position = entries_.lower_bound(id);
  return {position, position != entries_.end() && position->first == id};
}

DesktopEntry& DesktopEntryRegistry::GetDesktopEntry(std::string_view id) {
  const auto [position, found] = Find(id);
  return found ? position->second : Add(position, id)->second;
}

std::pair<DesktopEntryRegistry::Position, bool> DesktopEntryRegistry::FindDesktopEntryByName(std::string_view name) {
  std::string suffix("-");
  suffix.append(name).append(".desktop");
  if (const auto exact = Find(std::string_view(suffix).substr(1)); exact.second) {
    return exact;
  }
  const Position position = std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) {
    return entry.first.size() > suffix.size() && entry.first.ends_with(suffix);
  });
  return {position, position != entries_.end()};
}

DesktopEntryRegistry::Position DesktopEntryRegistry::Add(Position before, std::string_view id) {
  std::string_view key;
  Keep({{id, &key}});
  const Position position = entries_.try_emplace(before, key);
  position->second.number = static_cast<EntryNumber>(by_number_.size());
  by_number_.push_back(&*position);
  return position;
}

void DesktopEntryRegistry::Fill(DesktopEntry& record, const EntryTexts& texts, bool hidden) {
  record.hidden = hidden;
  Keep({{texts.path, &record.path},
        {texts.name, &record.name},
        {texts.icon, &record.icon},
        {texts.exec, &record.exec},
        {texts.categories, &record.categories}});
  if (hidden) {
    return;
  }
  ForEachField(record.categories, ';', [&](std::string_view category) {
    std::vector<EntryNumber>& listed = category_index_[category];
    if (listed.empty() || listed.back() != record.number) {
      listed.push_back(record.number);
    }
  });
}

void DesktopEntryRegistry::Keep(std::initializer_list<std::pair<std::string_view, std::string_view*>> texts) {
  std::size_t size = 0;
  for (const auto& [text, copy] : texts) {
    size += text.size();
  }
  char* place = static_cast<char*>(memory_.allocate(std::max<std::size_t>(size, 1), /*alignment=*/1));
  for (const auto& [text, copy] : texts) {
    *copy = {place, text.size()};
    place = std::copy(text.begin(), text.end(), place);
  }
}

const std::vector<EntryNumber>& DesktopEntryRegistry::InCategory(std::string_view category) const {
  static const std::vector<EntryNumber> none;
  const auto listed = category_index_.find(category);
  return listed != category_index_.end() ? listed->second : none;
}

void DesktopEntryRegistry::Allocate(const EntrySet& entries) {
  EntrySet added = entries;
  added -= allocated_;
  added.ForEach([&](EntryNumber number) { by_number_[number]->second.allocated = true; });
  allocated_ |= added;
}

}  // namespace qel
