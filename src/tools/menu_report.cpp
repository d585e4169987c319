#include "tools/menu_report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

#include "files/paths.h"

namespace qel {
namespace {

// The length in bytes of the UTF-8 character at the beginning of a text; 0 when the bytes there are not valid UTF-8.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [text](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
  const unsigned first = byte(0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xc2 ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0U) != 0x80) {
      return 0;
    }
  }
  // Overlong encodings, surrogates, and numbers above U+10FFFF.
  const bool is_none = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
                       (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f);
  return is_none ? 0 : length;
}

// Calls `use` with each character. Each byte that is not valid UTF-8 is replaced by U+FFFD.
template <typename Use>
void ForEachCharacter(std::string_view text, Use use) {
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    use(length > 0 ? text.substr(0, length) : std::string_view("\xef\xbf\xbd"));
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
}

// The code of a control character (also U+0080 to U+009F); -1 for all other characters.
int ControlCode(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0) {
    return static_cast<unsigned char>(character[1]);
  }
  return first < 0x20 || first == 0x7f ? first : -1;
}

// Replaces control characters by "?": a file name may contain any byte, and the output may go to a terminal.
std::string Printable(std::string_view text) {
  std::string printable;
  ForEachCharacter(text,
                   [&](std::string_view character) { printable += ControlCode(character) < 0 ? character : "?"; });
  return printable;
}

std::string ShownName(const ReportedEntry& reported) {
  const std::string_view name = reported.entry->name;
  return name.empty() ? BaseNameNoExt(reported.id) : std::string(name);
}

std::string JsonText(std::string_view text) {
  std::string quoted = "\"";
  ForEachCharacter(text, [&](std::string_view character) {
    if (const int code = ControlCode(character); code >= 0) {
      std::array<char, 16> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(code));
      quoted += escape.data();
      return;
    }
    if (character == "\"" || character == "\\") {
      quoted += '\\';
    }
    quoted += character;
  });
  return quoted + '"';
}

template <typename Texts>
std::string JsonList(const Texts& texts) {
  std::string list = "[";
  for (const std::string& text : texts) {
    list += (list.size() > 1 ? ", " : "") + JsonText(text);
  }
  return list + "]";
}

}  // namespace

std::string AbsenceNotes::Reason(const std::string& id) const {
  const auto read = hidden_by_.find(id);
  if (read == hidden_by_.end()) {
    return "not found: no application directory of the menu holds a file with this id";
  }
  const std::string desktop = CurrentDesktopName(desktop_);
  switch (read->second) {
    case HiddenBy::kNoDisplay:
      return "hidden: the file says NoDisplay=true";
    case HiddenBy::kOnlyShowIn:
      return "not shown on this desktop: OnlyShowIn does not list " + desktop;
    case HiddenBy::kNotShowIn:
      return "not shown on this desktop: NotShowIn lists " + desktop;
    case HiddenBy::kNothing:
      break;
  }
  if (const auto placed = placed_.find(id); placed != placed_.end()) {
    return "in a menu that is not shown: " + placed->second;
  }
  if (const auto excluded = excluded_.find(id); excluded != excluded_.end()) {
    return "excluded: the rules of " + excluded->second + " select it and then take it out";
  }
  return "unallocated: the rules of no menu select it";
}

const std::set<std::string>& AbsenceNotes::UnusedFiles(const std::string& id) const {
  static const std::set<std::string> none;
  const auto files = unused_files_.find(id);
  return files != unused_files_.end() ? files->second : none;
}

std::vector<ReportedEntry> MakeReport(const DesktopEntryRegistry& registry, const MenuEntries& menu,
                                      const AbsenceNotes& notes, const std::set<std::string>& wanted) {
  std::map<std::string, ReportedEntry> report;
  const auto add = [&](const std::string& id, const DesktopEntry* entry) {
    report[id] = {id, entry, {}, {}, &notes.UnusedFiles(id)};
  };
  for (const std::string& id : wanted) {
    add(id, nullptr);
  }
  for (const auto& [id, entry] : registry.entries()) {
    if (const std::string text(id); wanted.empty() || wanted.contains(text)) {
      add(text, &entry);
    }
  }
  for (const MenuEntry& placement : menu) {
    if (const auto reported = report.find(std::string(placement.id)); reported != report.end()) {
      reported->second.menus.emplace_back(placement.menu_path);
    }
  }
  std::vector<ReportedEntry> entries;
  for (auto& [id, reported] : report) {
    if (reported.menus.empty()) {
      reported.reason = notes.Reason(id);
    }
    entries.push_back(std::move(reported));
  }
  return entries;
}

void PrintMenus(std::ostream& out, const std::vector<ReportedEntry>& report) {
  std::map<std::string, std::map<const ReportedEntry*, std::size_t>>
      menus;  // menu path -> entry -> number of placements
  for (const ReportedEntry& reported : report) {
    for (const std::string& menu : reported.menus) {
      ++menus[menu][&reported];
    }
  }
  for (const auto& [menu, entries] : menus) {
    const auto depth = static_cast<std::size_t>(std::count(menu.begin(), menu.end(), '/'));
    const std::string indent((depth - 1) * 2, ' ');
    out << indent << Printable(menu) << '\n';
    for (const auto& [reported, count] : entries) {
      out << indent << "  " << Printable(ShownName(*reported)) << "  [" << Printable(reported->id) << "]  "
          << Printable(reported->entry->path) << "  icon=" << Printable(reported->entry->icon)
          << (count > 1 ? "  (" + std::to_string(count) + " times)" : "") << '\n';
      for (const std::string& file : *reported->unused_files) {
        if (NormalizePath(file) != reported->entry->path) {
          out << indent << "    has the same id and is not used: " << Printable(file) << '\n';
        }
      }
    }
  }
}

void PrintAbsent(std::ostream& out, const std::vector<ReportedEntry>& report) {
  for (const ReportedEntry& reported : report) {
    if (reported.menus.empty()) {
      out << Printable(reported.id) << ": " << Printable(reported.reason);
      if (reported.entry != nullptr) {
        out << "  (" << Printable(reported.entry->path) << ')';
      }
      out << '\n';
    }
  }
}

void PrintJson(std::ostream& out, const std::vector<ReportedEntry>& report) {
  const char* separator = "[\n";
  for (const ReportedEntry& reported : report) {
    out << separator << "  {\"id\": " << JsonText(reported.id);
    if (reported.entry != nullptr) {
      out << ", \"name\": " << JsonText(ShownName(reported)) << ", \"path\": " << JsonText(reported.entry->path)
          << ", \"icon\": " << JsonText(reported.entry->icon);
    }
    out << ", \"menus\": " << JsonList(reported.menus);
    if (!reported.reason.empty()) {
      out << ", \"absent\": " << JsonText(reported.reason);
    }
    out << '}';
    separator = ",\n";
  }
  out << (report.empty() ? "[]\n" : "\n]\n");
}

}  // namespace qel
