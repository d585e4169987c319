// What the menu check tells about a loaded menu.
#pragma once

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/applications_menu.h"

namespace qel {

// Remembers why entries are not shown, while the menu is loaded.
class AbsenceNotes : public MenuObserver {
 public:
  explicit AbsenceNotes(DesktopKind desktop) : desktop_(desktop) {}

  void OnEntryRead(std::string_view id, HiddenBy hidden_by) override { hidden_by_[std::string(id)] = hidden_by; }
  void OnEntryKnown(std::string_view id, std::string_view path) override {
    unused_files_[std::string(id)].emplace(path);
  }
  void OnEntryExcluded(std::string_view id, std::string_view menu) override { excluded_[std::string(id)] = menu; }
  void OnEntryPlaced(std::string_view id, std::string_view menu) override { placed_[std::string(id)] = menu; }

  // In words, for an id that the finished menu does not hold.
  std::string Reason(const std::string& id) const;

  // Files that give an id which an earlier one, or the same one in another pass over it, had given.
  const std::set<std::string>& UnusedFiles(const std::string& id) const;

 private:
  const DesktopKind desktop_;
  std::map<std::string, HiddenBy> hidden_by_;
  std::map<std::string, std::set<std::string>> unused_files_;
  std::map<std::string, std::string> excluded_;  // id -> the last menu that did it
  std::map<std::string, std::string> placed_;
};

// One application, as the report has it.
struct ReportedEntry {
  std::string id;
  const DesktopEntry* entry = nullptr;  // null: not found
  std::vector<std::string> menus;       // in the order of the menu; twice where the menu has it twice
  std::string reason;                   // why there is no menu
  const std::set<std::string>* unused_files;
};

// All entries of the registry, in the order of their ids, and those of `wanted` that it lacks. Unless `wanted` is
// empty, the others are left out.
std::vector<ReportedEntry> MakeReport(const DesktopEntryRegistry& registry, const MenuEntries& menu,
                                      const AbsenceNotes& notes, const std::set<std::string>& wanted);

// The menus with their applications, one line each. Here and below, control characters are printed as "?".
void PrintMenus(std::ostream& out, const std::vector<ReportedEntry>& report);

// The entries that no menu holds, with the reason.
void PrintAbsent(std::ostream& out, const std::vector<ReportedEntry>& report);

// The whole report as a JSON array, in UTF-8. Each byte that is none stands there as U+FFFD.
void PrintJson(std::ostream& out, const std::vector<ReportedEntry>& report);

}  // namespace qel
