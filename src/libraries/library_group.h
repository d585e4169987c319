// Groups of functions of a library that is opened at run time. Either all functions of a group are loaded or none.
#pragma once

#include <cstdint>

namespace qel {

using LibraryFunction = void (*)();

// One group. Entry i of the function table is the function with name i. While the group is loaded, no entry is null;
// otherwise `handle` is null, and so are all entries, unless CloseLibrary() had to leave the library open. The caller
// owns the record and both tables.
struct LibraryGroup {
  const char* name;                   // for the log
  const char* const* function_names;  // `count` names
  LibraryFunction* function_table;    // `count` entries
  std::uint32_t count;
  void* handle;
  const char* const* library_names;  // file names to try in order, null-terminated; null: `handle` is already set
};

// Loads each of `n` groups. When the library or one of the functions is missing, the group stays unloaded and a warning
// is logged. One thread at a time.
void LoadLibraryGroups(LibraryGroup* groups, std::uint32_t n);

// Unloads those of the `n` groups that are loaded. One thread at a time.
void UnloadLibraryGroups(LibraryGroup* groups, std::uint32_t n);

}  // namespace qel
