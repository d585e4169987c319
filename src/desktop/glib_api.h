// The GLib family of libraries, opened at run time: nine groups of functions, each loaded whole or not at all.
//
// The tables are written on the main thread while no other thread of the program exists, and only read in between. Once
// GSettings or D-Bus calls were made through them, the libraries run threads of their own ("gmain", "gdbus", "dconf
// worker") that live as long as the process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libraries/library_group.h"

namespace qel {

// The groups in table order; group g has the mask bit 1 << g.
enum class GLibGroup : std::uint32_t { kBase, kGObject, kGConf, kGVariant, kGSettings, kGDBus, kGVfs, kGtk, kGdk };
inline constexpr std::size_t kGLibGroupCount = 9;

// Loads the groups whose bits are set. Without "GLib Base" or "GObject" the whole family is unloaded again. Does
// nothing when called a second time before GLibApiDeinit().
void GLibApiInit(std::uint32_t mask);
void GLibApiDeinit();

// True when the group can be used: it and the groups it needs are loaded. False for numbers that are no group's.
bool IsGLibGroupAvailable(GLibGroup group);

// GLib's error record, whose layout is part of its binary interface.
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

// Null while the function's group is not loaded.
LibraryFunction TableEntry(Index index);

// Stands for one function and is called like it, while its group is available.
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
