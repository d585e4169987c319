#include "appmenu/menu_builder.h"

#include <optional>
#include <utility>

#include "appmenu/menu_document.h"
#include "appmenu/xml_tree.h"

namespace qel {
namespace {

constexpr int kMaxRuleDepth = 256;
constexpr std::size_t kMaxMenuPath = 2048;
constexpr std::size_t kMaxPlacements = 1'000'000;
constexpr std::size_t kMaxAllPaths = std::size_t{32} << 20;
constexpr std::size_t kPathCost = 64;  // bytes that a path takes up besides its text
constexpr std::size_t kMaxSelections = 200'000'000;

}  // namespace

MenuBuilder::MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader,
                         const DirectoryFiles& directory_files, MenuObserver* observer)
    : registry_(registry),
      loader_(loader),
      directory_files_(directory_files),
      observer_(observer),
      path_lengths_(0, "a menu with too long a path"),
      rule_depths_(0, "a rule nested too deep"),
      all_paths_(kMaxAllPaths, "too many menus with entries"),
      all_placements_(kMaxPlacements, "too many entries"),
      selections_(kMaxSelections, "too many rules for large categories") {}

std::vector<Placement> MenuBuilder::BuildMenuPass(xmlNode* menu, bool unallocated_only) {
  unallocated_only_ = unallocated_only;
  BuildMenu(menu, {}, {});
  return std::exchange(placements_, {});
}

void MenuBuilder::BuildMenu(xmlNode* menu, const std::string& parent_path, const EntrySet& parent_pool) {
  std::string path = MenuPath(parent_path, MenuName(menu->children));
  const std::size_t first_placement = placements_.size();
  std::optional<EntrySet> own_pool;  // few menus have application directories of their own
  const auto pool = [&]() -> const EntrySet& { return own_pool ? *own_pool : parent_pool; };
  EntrySet included;
  bool visible = true;
  bool only_unallocated = false;

  for (xmlNode* child = menu->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    if (IsElement(child, "Menu")) {
      BuildMenu(child, path, pool());
    } else if (IsElement(child, "AppDir")) {
      if (!own_pool) {
        own_pool = parent_pool;
      }
      *own_pool |= loader_.LoadApplicationDir(ElementText(child), unallocated_only_);
    } else if (IsElement(child, "Directory")) {
      if (const DirectoryFile* const file = directory_files_.Of(child)) {
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

  const bool takes_later = only_unallocated && !unallocated_only_;
  if (!takes_later) {
    Place(included, path);
  }
  if (takes_later || !visible) {
    placements_.resize(first_placement);
    if (observer_ != nullptr) {
      observer_->OnMenuDropped(path, takes_later ? MenuDropped::kOnlyUnallocated : MenuDropped::kNoDisplay);
    }
  }
}

std::string MenuBuilder::MenuPath(const std::string& parent_path, const std::string& name) {
  std::string path = parent_path;
  path.append("/").append(name);
  if (path.size() > kMaxMenuPath) {
    path_lengths_.Refuse(path);
    path.resize(kMaxMenuPath);
  }
  return path;
}

void MenuBuilder::Place(const EntrySet& entries, const std::string& path) {
  entries.ForEach([&](EntryNumber entry) { registry_.Allocate(entry); });

  if (entries.IsEmpty() || !all_paths_.Take(path.size() + kPathCost, path)) {
    return;
  }
  const std::size_t menu = menu_paths_.size();
  entries.ForEach([&](EntryNumber entry) {
    if (!all_placements_.Take(1, path)) {
      return;
    }
    if (menu_paths_.size() == menu) {
      menu_paths_.push_back(path);
    }
    placements_.push_back({entry, menu});
    if (observer_ != nullptr) {
      observer_->OnEntryPlaced(registry_.ByNumber(entry).first, path);
    }
  });
}

void MenuBuilder::EvaluateRule(const xmlNode* rule, const EntrySet& universe, EntrySet& result, int depth) {
  const bool is_and = IsElement(rule, "And");
  if (is_and) {
    result = universe;
  }
  for (const xmlNode* child = rule->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) {
      continue;
    }
    if (is_and) {
      EntrySet selected;
      AddSelected(child, universe, selected, depth);
      result &= selected;
    } else {
      AddSelected(child, universe, result, depth);
    }
  }
  if (IsElement(rule, "Not") || IsElement(rule, "Exclude")) {
    EntrySet others = universe;
    others -= result;
    result = std::move(others);
  }
}

void MenuBuilder::AddSelected(const xmlNode* element, const EntrySet& universe, EntrySet& result, int depth) {
  std::string text;
  if (IsElement(element, "Category")) {
    const std::string_view category = ElementText(element, text);
    const std::vector<EntryNumber>& listed = registry_.InCategory(category);
    if (!selections_.Take(listed.size(), category)) {
      return;
    }
    for (const EntryNumber entry : listed) {
      result.Insert(entry);
    }
  } else if (IsElement(element, "Filename")) {
    const auto [position, found] = registry_.Find(ElementText(element, text));
    if (found && universe.Contains(position->second.number)) {
      result.Insert(position->second.number);
    }
  } else if (IsElement(element, "All")) {
    result |= universe;
  } else if (IsElement(element, "And") || IsElement(element, "Or") || IsElement(element, "Not")) {
    if (depth == kMaxRuleDepth) {
      rule_depths_.Refuse(element->parent != nullptr ? reinterpret_cast<const char*>(element->parent->name) : "");
    } else {
      EntrySet selected;
      EvaluateRule(element, universe, selected, depth + 1);
      result |= selected;
    }
  }
}

}  // namespace qel
