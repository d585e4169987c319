// The desktop entries of the guest: one record per application, kept for the life of the process.
//
// Not locked: the registry belongs to the thread that loads the menu and matches windows.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/entry_set.h"
#include "desktop/desktop_kind.h"

namespace qel {

struct DesktopEntry {
  std::string path;  // of the desktop file, normalised; empty when no file supplied the record
  std::string name;
  std::string icon;                     // a name or a path, as written
  std::string exec;                     // the command line, as written
  std::vector<std::string> categories;  // as written; may hold empty texts
  bool hidden = false;                  // must not be shown on this desktop
  bool allocated = false;               // some menu holds it; see DesktopEntryRegistry::Allocate()
  EntryNumber number = 0;               // in order of first appearance in the registry
};

// Current desktop id -> the legacy id under which the entry is filed.
const std::map<std::string_view, std::string_view>& DesktopIdAliases();

// The name by which desktop entries call a desktop ("GNOME", "XFCE", …); "Old" for a value that is none of the enum's.
const char* CurrentDesktopName(DesktopKind kind);

class DesktopEntryRegistry {
 public:
  // Desktop id -> record. Records are never removed, so references to them stay valid.
  using Entries = std::map<std::string, DesktopEntry, std::less<>>;
  using Position = Entries::iterator;

  const Entries& entries() const { return entries_; }

  // The record for an id; a new, empty one when there is none.
  DesktopEntry& GetDesktopEntry(std::string_view id);

  // The entry with the id NAME.desktop, else the first in id order whose id ends in "-NAME.desktop" and is longer than
  // that. The flag tells whether there is one; the position is the end when not.
  std::pair<Position, bool> FindDesktopEntryByName(std::string_view name);

  // The position of an id, or where it would stand; the flag tells which.
  std::pair<Position, bool> Find(std::string_view id);

  // Files an empty record under an id that is not present, before the position that Find() returned for it.
  Position Add(Position before, std::string id);

  // Gives an empty record its content. If it is not hidden, it is then listed under each of its categories.
  void Fill(DesktopEntry& record, DesktopEntry content);

  std::size_t size() const { return by_number_.size(); }
  const Entries::value_type& ByNumber(EntryNumber number) const { return *by_number_[number]; }

  // The CategoryIndex: the entries of a category, each once, in ascending order of their numbers.
  const std::vector<EntryNumber>& InCategory(std::string_view category) const;

  // Notes that a menu holds the entry. This is never taken back.
  void Allocate(EntryNumber number);
  const EntrySet& allocated() const { return allocated_; }

 private:
  Entries entries_;
  std::vector<Entries::value_type*> by_number_;
  std::map<std::string, std::vector<EntryNumber>, std::less<>> category_index_;
  EntrySet allocated_;  // the flags of all records
};

}  // namespace qel
