// The GLib family of libraries, opened at run time: nine groups of functions. Either all functions of a group are
// loaded or none.
//
// GLibApiInit() and GLibApiDeinit() are called on the main thread while the program has no other thread. In between the
// tables are only read, so any thread may call the functions. After calls of GSettings or GDBus the libraries run
// threads of their own ("gmain", "gdbus", "dconf worker") until the process ends.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libraries/library_group.h"

namespace qel {

// The groups in table order. The mask bit of group g is 1 << g.
enum class GLibGroup : std::uint32_t { kBase, kGObject, kGConf, kGVariant, kGSettings, kGDBus, kGVfs, kGtk, kGdk };
inline constexpr std::size_t kGLibGroupCount = 9;

// Loads the groups whose bits are set in `mask`. When "GLib Base" or "GObject" cannot be loaded, an error is logged and
// all groups are unloaded again. A second call before GLibApiDeinit() does nothing.
void GLibApiInit(std::uint32_t mask);
void GLibApiDeinit();

// True when the group and all groups that it needs are loaded. False for a number that is no group.
bool IsGLibGroupAvailable(GLibGroup group);

// The layout of GLib's GError, which is part of its binary interface.
struct GErrorRecord {
  std::uint32_t domain;
  int code;
  char* message;
};

namespace glib {

// All functions of the family.
enum class Index : std::size_t {
#define QEL_GLIB_FUNCTION(group, name) name,
#include "desktop/glib_functions.def"
};

// The address of a function; null while its group is not loaded.
LibraryFunction TableEntry(Index index);

// A typed wrapper of one function. It may be called only while IsGLibGroupAvailable() is true for the function's group.
template <Index index, typename Signature>
struct Function;

template <Index index, typename Result, typename... Arguments>
struct Function<index, Result(Arguments...)> {
  Result operator()(Arguments... arguments) const {
    return reinterpret_cast<Result (*)(Arguments...)>(TableEntry(index))(arguments...);
  }
};

// The functions that the program calls.
#define QEL_GLIB_FUNCTION(group, name)
#define QEL_GLIB_CALLED(group, name, ...) inline constexpr Function<Index::name, __VA_ARGS__> name;
#include "desktop/glib_functions.def"

}  // namespace glib
}  // namespace qel
