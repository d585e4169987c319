// Groups of functions of a library that is opened at run time: a group is loaded whole or not at all.
#pragma once

#include <cstdint>

namespace qel {

using LibraryFunction = void (*)();

// One group. The function table is filled in the order of the names; all its entries are null while the group is not
// loaded (handle null), and none is while it is.
struct LibraryGroup {
  const char* name;                   // for the log
  const char* const* function_names;  // `count` names
  LibraryFunction* function_table;    // `count` entries
  std::uint32_t count;
  void* handle;
  const char* const* library_names;  // file names to try in order, ended by a null
};

// Loads each of `n` groups; a group whose library or whose function is missing stays unloaded, which is logged as a
// warning.
void LoadLibraryGroups(LibraryGroup* groups, std::uint32_t n);

// Unloads the groups that are loaded.
void UnloadLibraryGroups(LibraryGroup* groups, std::uint32_t n);

}  // namespace qel
