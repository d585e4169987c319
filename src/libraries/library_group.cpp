#include "libraries/library_group.h"

#include <algorithm>

#include "libraries/library.h"
#include "log/log.h"

namespace qel {
namespace {

void ClearTable(LibraryGroup& group) {
  std::fill_n(group.function_table, group.count, nullptr);
}

// Afterwards the group counts as not loaded, even when the library stays open for a detached thread.
void Close(LibraryGroup& group) {
  if (CloseLibrary(group.handle)) {
    ClearTable(group);
  }
}

// A group without library names uses the handle that its owner has set.
bool Open(LibraryGroup& group) {
  if (group.library_names != nullptr && *group.library_names != nullptr) {
    group.handle = OpenFirstLibrary(group.library_names, [&](const char* name) {
      LogInfo(kModuleLoader, "Try %s for %s library...", name, group.name);
    });
  }
  if (group.handle == nullptr) {
    LogWarning(kModuleLoader, "Warning: Could not load %s library", group.name);
  }
  return group.handle != nullptr;
}

void LoadGroup(LibraryGroup& group) {
  ClearTable(group);
  if (!Open(group)) {
    return;
  }
  for (std::uint32_t i = 0; i < group.count; ++i) {
    FindFunction(group.handle, group.function_names[i], group.function_table[i]);
    if (group.function_table[i] == nullptr) {
      Close(group);
      LogWarning(kModuleLoader, "Warning: Could not load %s function %s", group.name, group.function_names[i]);
      return;
    }
  }
  LogInfo(kModuleLoader, "%s functions were loaded successfully", group.name);
}

}  // namespace

void LoadLibraryGroups(LibraryGroup* groups, std::uint32_t n) {
  std::for_each_n(groups, n, LoadGroup);
}

void UnloadLibraryGroups(LibraryGroup* groups, std::uint32_t n) {
  std::for_each_n(groups, n, [](LibraryGroup& group) {
    if (group.handle != nullptr) {
      Close(group);
      LogInfo(kModuleLoader, "%s functions were unloaded", group.name);
    }
  });
}

}  // namespace qel
