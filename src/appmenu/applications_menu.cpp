#include "appmenu/applications_menu.h"

#include <libxml/parser.h>

#include <optional>

#include "appmenu/load_budget.h"
#include "appmenu/menu_builder.h"
#include "appmenu/menu_document.h"
#include "log/log.h"

namespace qel {
namespace {

// Frees the memory that libxml2 keeps between documents.
struct ParserCleanup {
  ~ParserCleanup() { xmlCleanupParser(); }
};

// Sorts placements by the ids of their entries. The order of placements with the same id is kept.
std::vector<MenuEntry> ToEntries(const DesktopEntryRegistry& registry, const std::vector<Placement>& placements,
                                 const std::vector<std::string>& menu_paths) {
  std::vector<std::size_t> next(registry.size());  // per entry: the index for its next placement
  for (const Placement& placement : placements) {
    ++next[placement.entry];
  }
  std::size_t begin = 0;
  for (const auto& [id, entry] : registry.entries()) {
    const std::size_t count = next[entry.number];
    next[entry.number] = begin;
    begin += count;
  }
  std::vector<MenuEntry> entries(placements.size());
  for (const Placement& placement : placements) {
    entries[next[placement.entry]++] = {registry.ByNumber(placement.entry).first, menu_paths[placement.menu]};
  }
  return entries;
}

}  // namespace

MenuEntries LoadApplicationsMenu(DesktopEntryRegistry& registry, DesktopKind desktop, const MenuLoadOptions& options) {
  const std::string path = LocateMenuFile(desktop, options.system_menus);
  if (path.empty()) {
    LogError(kModuleAgent, "Error: Failed to find applications menu defition.");
    return {};
  }
  LogInfo(kModuleAgent, "Found app menu definition file: '%s'", path.c_str());

  const ParserCleanup cleanup;  // declared first, so that it runs after the document is freed
  LoadBudget budget(options.may_go_on);
  std::optional<LoadBudget::Share> share(budget);
  MenuExpander expander(budget);
  const XmlDocument document = expander.ReadMenuFile(path);
  if (document == nullptr) {
    LogError(kModuleAgent, "Error: Failed to parse XML of applications.menu");
    return {};
  }
  xmlNode* const menu = FindElement(xmlDocGetRootElement(document.get()), "Menu");
  if (menu == nullptr) {
    return {};
  }
  std::vector<std::string> file_stack{path};
  expander.ExpandMenu(menu, file_stack);
  FoldSubmenus(menu);
  share.reset();

  ApplicationLoader loader(registry, desktop, budget, options.observer);
  MenuBuilder builder(registry, loader, budget, options.observer);
  std::vector<Placement> placements = builder.BuildMenuPass(menu, /*unallocated_only=*/false);
  const std::vector<Placement> second = builder.BuildMenuPass(menu, /*unallocated_only=*/true);
  placements.insert(placements.end(), second.begin(), second.end());
  std::vector<std::string> menu_paths = builder.TakeMenuPaths();
  std::vector<MenuEntry> entries = ToEntries(registry, placements, menu_paths);
  return MenuEntries(std::move(menu_paths), std::move(entries));
}

}  // namespace qel
