// The desktop entries of the guest: one record per application, kept until the process ends.
//
// There is no lock: only one thread at a time may use the registry, first the thread that loads the menu, then the
// worker, which matches windows.
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

// The values of a desktop file, exactly as written in the file.
struct EntryTexts {
  std::string_view path;  // normalised path of the file; empty when the record does not come from a file
  std::string_view name;
  std::string_view icon;        // a name or a path
  std::string_view exec;        // the command line
  std::string_view categories;  // separated by ";"; some may be empty
};

// A record of the registry. The registry owns its texts; they are valid as long as the registry.
struct DesktopEntry : EntryTexts {
  bool hidden = false;     // must not be shown on this desktop
  bool allocated = false;  // at least one menu contains it; see DesktopEntryRegistry::Allocate()
  EntryNumber number = 0;  // counted in the order in which records were added
};

// Current desktop id -> legacy id, which the registry uses as the key.
const std::map<std::string_view, std::string_view>& DesktopIdAliases();

// The name of a desktop in OnlyShowIn and NotShowIn ("GNOME", "XFCE", …); "Old" for a value outside of the enum.
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

  // The record with this id. Adds an empty record when there is none.
  DesktopEntry& GetDesktopEntry(std::string_view id);

  // Finds the entry with the id NAME.desktop, else the first one, in id order, whose id ends in "-NAME.desktop" and is
  // longer than that. The flag is false when there is none; then the position is the end.
  std::pair<Position, bool> FindDesktopEntryByName(std::string_view name);

  // The position of the record with this id and true; otherwise the position to pass to Add() and false.
  std::pair<Position, bool> Find(std::string_view id);

  // Adds an empty record for an id that is not present. `before` is the position that Find() has returned for it.
  Position Add(Position before, std::string_view id);

  // Stores copies of the texts in an empty record. If it is not hidden, also adds it to the lists of its categories.
  void Fill(DesktopEntry& record, const EntryTexts& texts, bool hidden);

  void Rename(DesktopEntry& record, std::string_view name) { Keep({{name, &record.name}}); }

  std::size_t size() const { return by_number_.size(); }
  const Entries::value_type& ByNumber(EntryNumber number) const { return *by_number_[number]; }

  // The entries of a category, each once, in the order in which they were filled: the `CategoryIndex`.
  const std::vector<EntryNumber>& InCategory(std::string_view category) const;

  // Marks the entries as contained in a menu. The mark is never removed.
  void Allocate(const EntrySet& entries);
  const EntrySet& allocated() const { return allocated_; }

 private:
  // Copies all texts into one block of memory_ and stores the copies in the string_views.
  void Keep(std::initializer_list<std::pair<std::string_view, std::string_view*>> texts);

  std::pmr::monotonic_buffer_resource memory_;  // for records and texts, which are never freed before the registry
  Entries entries_{&memory_};
  std::vector<Entries::value_type*> by_number_;
  std::pmr::map<std::string_view, std::vector<EntryNumber>> category_index_{&memory_};
  EntrySet allocated_;  // the records whose `allocated` is true
};

}  // namespace qel
