#include "appmenu/menu_builder.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "appmenu/menu_document.h"
#include "appmenu/xml_tree.h"

namespace qel {
namespace {

constexpr std::size_t kMaxMenuPath = 2048;
constexpr std::size_t kPathCost = 64;       // bytes of memory for a path besides its text
constexpr std::size_t kPlacementCost = 64;  // bytes of memory, here and in the finished list
constexpr std::size_t kManyEntries = 64;
constexpr std::int64_t kElementTime = 200;  // estimated nanoseconds

}  // namespace

MenuBuilder::MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader, LoadBudget& budget,
                         MenuObserver* observer)
    : registry_(registry), loader_(loader), budget_(budget), observer_(observer), directory_files_(budget) {}

std::vector<Placement> MenuBuilder::BuildMenuPass(xmlNode* menu, bool unallocated_only) {
  unallocated_only_ = unallocated_only;
  BuildMenu(menu, {}, {});
  return std::exchange(placements_, {});
}

void MenuBuilder::BuildMenu(xmlNode* menu, const std::string& parent_path, const EntrySet& parent_pool) {
  std::string path = MenuPath(parent_path, MenuName(menu->children));
  const std::size_t first_placement = placements_.size();
  const std::size_t parent_directories = directories_.size();
  std::optional<EntrySet> own_pool;  // few menus have application directories of their own
  const auto pool = [&]() -> const EntrySet& { return own_pool ? *own_pool : parent_pool; };
  EntrySet included;
  bool visible = true;
  bool only_unallocated = false;

  for (xmlNode* child = menu->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    if (!budget_.Spend(ElementTime(), path)) {
      break;
    }
    if (IsElement(child, "Menu")) {
      BuildMenu(child, path, pool());
    } else if (IsElement(child, "AppDir")) {
      if (!own_pool) {
        own_pool = parent_pool;
      }
      *own_pool |= loader_.LoadApplicationDir(ElementText(child), unallocated_only_);
    } else if (IsElement(child, "DirectoryDir")) {
      if (std::string directory = ElementText(child); !directory.empty()) {
        directories_.push_back(std::move(directory));
      }
    } else if (IsElement(child, "Directory")) {
      if (const DirectoryFile* const file = directory_files_.Find(directories_, ElementText(child))) {
        visible = visible && !file->no_display;
        if (!file->name.empty()) {
          path = MenuPath(parent_path, file->name);
        }
      }
    } else if (IsElement(child, "Include")) {
      EvaluateRule(child, pool(), included);
    } else if (IsElement(child, "Exclude")) {
      EntrySet remaining;
      EvaluateRule(child, included, remaining);
      if (observer_ != nullptr) {
        included -= remaining;
        included.ForEach([&](EntryNumber entry) { observer_->OnEntryExcluded(registry_.ByNumber(entry).first, path); });
      }
      included = std::move(remaining);
    } else if (IsElement(child, "OnlyUnallocated")) {
      only_unallocated = true;
    }
  }

  directories_.resize(parent_directories);
  const bool takes_later = only_unallocated && !unallocated_only_;
  if (!takes_later) {
    Place(included, path);
  }
  if (takes_later || !visible) {
    placements_.resize(first_placement);
  }
}

std::string MenuBuilder::MenuPath(const std::string& parent_path, const std::string& name) {
  std::string path = parent_path;
  path.append("/").append(name);
  if (path.size() > kMaxMenuPath) {
    budget_.Refuse(path);
    path.resize(kMaxMenuPath);
  }
  return path;
}

void MenuBuilder::Place(const EntrySet& entries, const std::string& path) {
  if (entries.IsEmpty()) {
    return;
  }
  registry_.Allocate(entries);
  EntrySet placed = entries;
  if (!budget_.TakeBytes(path.size() + kPathCost + entries.Count() * kPlacementCost, path)) {
    placed -= placed_;
    if (placed.IsEmpty()) {
      return;
    }
  }
  placed_ |= placed;
  menu_paths_.push_back(path);
  placed.ForEach([&](EntryNumber entry) {
    placements_.push_back({entry, menu_paths_.size() - 1});
    if (observer_ != nullptr) {
      observer_->OnEntryPlaced(registry_.ByNumber(entry).first, path);
    }
  });
}

void MenuBuilder::EvaluateRule(const xmlNode* rule, const EntrySet& universe, EntrySet& result) {
  const bool is_and = IsElement(rule, "And");
  if (is_and) {
    result = universe;
  }
  for (const xmlNode* child = rule->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    if (!budget_.Spend(ElementTime(), "a rule")) {
      result = {};  // an incomplete rule selects nothing
      return;
    }
    if (is_and) {
      EntrySet selected;
      AddSelected(child, universe, selected);
      result &= selected;
    } else {
      AddSelected(child, universe, result);
    }
  }
  if (IsElement(rule, "Not") || IsElement(rule, "Exclude")) {
    EntrySet others = universe;
    others -= result;
    result = std::move(others);
  }
}

void MenuBuilder::AddSelected(const xmlNode* element, const EntrySet& universe, EntrySet& result) {
  std::string text;
  if (IsElement(element, "Category")) {
    AddCategory(ElementText(element, text), result);
  } else if (IsElement(element, "Filename")) {
    const auto [position, found] = registry_.Find(ElementText(element, text));
    if (found && universe.Contains(position->second.number)) {
      result.Insert(position->second.number);
    }
  } else if (IsElement(element, "All")) {
    result |= universe;
  } else if (IsElement(element, "And") || IsElement(element, "Or") || IsElement(element, "Not")) {
    EntrySet selected;
    EvaluateRule(element, universe, selected);
    result |= selected;
  }
}

void MenuBuilder::AddCategory(std::string_view category, EntrySet& result) {
  const std::vector<EntryNumber>& listed = registry_.InCategory(category);
  auto known = categories_.find(category);
  if (known == categories_.end()) {
    if (listed.size() < kManyEntries || !budget_.TakeBytes(category.size() + registry_.size() / 8, category)) {
      if (budget_.Spend(static_cast<std::int64_t>(listed.size()), category)) {
        std::ranges::for_each(listed, [&](EntryNumber entry) { result.Insert(entry); });
      }
      return;
    }
    known = categories_.emplace(category, CategorySet{}).first;
  }
  CategorySet& set = known->second;
  for (; set.taken < listed.size(); ++set.taken) {
    set.entries.Insert(listed[set.taken]);
  }
  result |= set.entries;
}

// Estimated nanoseconds for an element that needs operations on sets of entries.
std::int64_t MenuBuilder::ElementTime() const {
  return kElementTime + static_cast<std::int64_t>(registry_.size() / 64);
}

}  // namespace qel
