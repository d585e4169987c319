#include "appmenu/menu_builder.h"

#include <optional>
#include <utility>

#include "appmenu/menu_document.h"
#include "appmenu/xml_tree.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr int kMaxRuleDepth = 256;
constexpr std::size_t kMaxMenuPath = 2048;
constexpr std::size_t kMaxPlacements = 1'000'000;
constexpr std::size_t kMaxSelections = 200'000'000;

}  // namespace

MenuBuilder::MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader,
                         const DirectoryFiles& directory_files, MenuObserver* observer)
    : registry_(registry),
      loader_(loader),
      directory_files_(directory_files),
      observer_(observer),
      selections_left_(kMaxSelections) {}

std::vector<Placement> MenuBuilder::BuildMenuPass(xmlNode* menu, bool unallocated_only) {
  unallocated_only_ = unallocated_only;
  BuildMenu(menu, {}, {});
  return std::exchange(placements_, {});
}

void MenuBuilder::BuildMenu(xmlNode* menu, const std::string& parent_path, const EntrySet& parent_pool) {
  std::string path = parent_path + '/' + MenuName(menu->children);
  if (path.size() > kMaxMenuPath) {
    Refuse("a menu with too long a path", parent_path);
    return;
  }
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
          path = parent_path;
          path.append("/").append(file->name);
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

void MenuBuilder::Place(const EntrySet& entries, const std::string& path) {
  EntrySet unallocated = entries;
  unallocated -= registry_.allocated();
  unallocated.ForEach([&](EntryNumber entry) { registry_.Allocate(entry); });

  const std::size_t menu = menu_paths_.size();
  bool placed = false;
  entries.ForEach([&](EntryNumber entry) {
    if (placements_.size() == kMaxPlacements) {
      Refuse("too many entries", path);
      return;
    }
    placements_.push_back({entry, menu});
    placed = true;
    if (observer_ != nullptr) {
      observer_->OnEntryPlaced(registry_.ByNumber(entry).first, path);
    }
  });
  if (placed) {
    menu_paths_.push_back(path);
  }
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
    if (listed.size() > selections_left_) {
      Refuse("too many rules for large categories", std::string(category));
      return;
    }
    selections_left_ -= listed.size();
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
      Refuse("a rule nested too deep", {});
    } else {
      EntrySet selected;
      EvaluateRule(element, universe, selected, depth + 1);
      result |= selected;
    }
  }
}

// Logged once per load: a menu that asks too much does so many times.
void MenuBuilder::Refuse(const char* what, const std::string& where) {
  if (!refused_) {
    LogWarning(kModuleAgent, "Warning: The applications menu has %s, left out at '%.256s'", what, where.c_str());
    refused_ = true;
  }
}

}  // namespace qel
