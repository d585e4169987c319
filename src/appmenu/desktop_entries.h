// The desktop entries of the guest: one record per application, kept for the life of the process.
//
// Not locked: the registry belongs to the thread that loads the menu and matches windows.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <map>
#include <memory_resource>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/entry_set.h"
#include "desktop/desktop_kind.h"

namespace qel {

// What a desktop file says, as written there.
struct EntryTexts {
  std::string_view path;  // of the file, normalised; empty when no file supplied the record
  std::string_view name;
  std::string_view icon;        // a name or a path
  std::string_view exec;        // the command line
  std::string_view categories;  // separated by ";"; may hold empty ones
};

// A record of the registry, which owns its texts: they stay as long as it does.
struct DesktopEntry : EntryTexts {
  bool hidden = false;     // must not be shown on this desktop
  bool allocated = false;  // some menu holds it; see DesktopEntryRegistry::Allocate()
  EntryNumber number = 0;  // in order of first appearance in the registry
};

// Current desktop id -> the legacy id under which the entry is filed.
const std::map<std::string_view, std::string_view>& DesktopIdAliases();

// The name by which desktop entries call a desktop ("GNOME", "XFCE", …); "Old" for a value that is none of the enum's.
const char* CurrentDesktopName(DesktopKind kind);

class DesktopEntryRegistry {
 public:
  // Desktop id -> record. Records are never removed, so references to them stay valid.
  using Entries = std::pmr::map<std::string_view, DesktopEntry>;
  using Position = Entries::iterator;

  DesktopEntryRegistry() = default;
  DesktopEntryRegistry(const DesktopEntryRegistry&) = delete;
  DesktopEntryRegistry& operator=(const DesktopEntryRegistry&) = delete;

  const Entries& entries() const { return entries_; }

  // The record for an id; a new, empty one when there is none.
  DesktopEntry& GetDesktopEntry(std::string_view id);

  // The entry with the id NAME.desktop, else the first in id order whose id ends in "-NAME.desktop" and is longer than
  // that. The flag tells whether there is one; the position is the end when not.
  std::pair<Position, bool> FindDesktopEntryByName(std::string_view name);

  // The position of an id, or where it would stand; the flag tells which.
  std::pair<Position, bool> Find(std::string_view id);

  // Files an empty record under an id that is not present, before the position that Find() returned for it.
  Position Add(Position before, std::string_view id);

  // Gives an empty record its texts. If it is not hidden, it is then listed under each of its categories.
  void Fill(DesktopEntry& record, const EntryTexts& texts, bool hidden);

  void Rename(DesktopEntry& record, std::string_view name) { Keep({{name, &record.name}}); }

  std::size_t size() const { return by_number_.size(); }
  const Entries::value_type& ByNumber(EntryNumber number) const { return *by_number_[number]; }

  // The CategoryIndex: the entries of a category, each once, in the order in which they were filled.
  const std::vector<EntryNumber>& InCategory(std::string_view category) const;

  // Notes that a menu holds the entries. This is never taken back.
  void Allocate(const EntrySet& entries);
  const EntrySet& allocated() const { return allocated_; }

 private:
  // Puts copies of the texts one behind the other.
  void Keep(std::initializer_list<std::pair<std::string_view, std::string_view*>> texts);

  std::pmr::monotonic_buffer_resource memory_;  // for records and texts: none of them is ever given up
  Entries entries_{&memory_};
  std::vector<Entries::value_type*> by_number_;
  std::pmr::map<std::string_view, std::vector<EntryNumber>> category_index_{&memory_};
  EntrySet allocated_;  // the flags of all records
};

}  // namespace qel
