// The report of the menu check about a loaded menu.
#pragma once

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/applications_menu.h"

namespace qel {

// Records, while the menu is loaded, why entries are not shown.
class AbsenceNotes : public MenuObserver {
 public:
  explicit AbsenceNotes(DesktopKind desktop) : desktop_(desktop) {}

  void OnEntryRead(std::string_view id, HiddenBy hidden_by) override { hidden_by_[std::string(id)] = hidden_by; }
  void OnEntryKnown(std::string_view id, std::string_view path) override {
    unused_files_[std::string(id)].emplace(path);
  }
  void OnEntryExcluded(std::string_view id, std::string_view menu) override { excluded_[std::string(id)] = menu; }
  void OnEntryPlaced(std::string_view id, std::string_view menu) override { placed_[std::string(id)] = menu; }

  // The reason as text why the menu does not contain this id.
  std::string Reason(const std::string& id) const;

  // The files with this id that were not read because the id was already known. May include the file that was read,
  // when its directory was loaded again.
  const std::set<std::string>& UnusedFiles(const std::string& id) const;

 private:
  const DesktopKind desktop_;
  std::map<std::string, HiddenBy> hidden_by_;
  std::map<std::string, std::set<std::string>> unused_files_;
  std::map<std::string, std::string> excluded_;  // id -> path of the last menu that excluded it
  std::map<std::string, std::string> placed_;    // id -> path of the last menu that selected it
};

// The report about one application.
struct ReportedEntry {
  std::string id;
  const DesktopEntry* entry = nullptr;  // null: not found
  std::vector<std::string> menus;       // in menu order; a path occurs twice when the entry is in that menu twice
  std::string reason;                   // why the entry is in no menu
  const std::set<std::string>* unused_files;
};

// If `wanted` is empty, the report contains all entries of the registry; otherwise the ids in `wanted`, also those that
// are not in the registry. Sorted by id. `notes` and the registry must outlive the result.
std::vector<ReportedEntry> MakeReport(const DesktopEntryRegistry& registry, const MenuEntries& menu,
                                      const AbsenceNotes& notes, const std::set<std::string>& wanted);

// Prints the menus with their applications, one line each. PrintMenus() and PrintAbsent() print control characters as
// "?".
void PrintMenus(std::ostream& out, const std::vector<ReportedEntry>& report);

// Prints the entries that are in no menu, with the reason.
void PrintAbsent(std::ostream& out, const std::vector<ReportedEntry>& report);

// Prints the whole report as a JSON array in UTF-8. Each byte that is not valid UTF-8 is replaced by U+FFFD.
void PrintJson(std::ostream& out, const std::vector<ReportedEntry>& report);

}  // namespace qel
