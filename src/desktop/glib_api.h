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

// Entry `index` of a group's function table; null while the group is not loaded.
LibraryFunction TableEntry(GLibGroup group, std::size_t index);

// Stands for one function of a group and is called like it, while the group is available.
template <GLibGroup group, std::size_t index, typename Signature>
struct Function;

template <GLibGroup group, std::size_t index, typename Result, typename... Arguments>
struct Function<group, index, Result(Arguments...)> {
  Result operator()(Arguments... arguments) const {
    return reinterpret_cast<Result (*)(Arguments...)>(TableEntry(group, index))(arguments...);
  }
};

// The functions that the program calls, each at its position in its group.
// clang-format off
#define QEL_GLIB_GROUP(group, ...) inline namespace group##Functions { \
                                   inline constexpr GLibGroup kGroup = GLibGroup::group; \
                                   enum class Index : std::size_t {
#define QEL_GLIB_FUNCTION(name) name,
#define QEL_GLIB_CALLED(name, ...) name,
#define QEL_GLIB_GROUP_END() }; }
#include "desktop/glib_functions.def"
#undef QEL_GLIB_GROUP
#undef QEL_GLIB_FUNCTION
#undef QEL_GLIB_CALLED
#undef QEL_GLIB_GROUP_END

#define QEL_GLIB_GROUP(group, ...) inline namespace group##Functions {
#define QEL_GLIB_FUNCTION(name)
#define QEL_GLIB_CALLED(name, ...) \
  inline constexpr Function<kGroup, static_cast<std::size_t>(Index::name), __VA_ARGS__> name;
#define QEL_GLIB_GROUP_END() }
#include "desktop/glib_functions.def"
#undef QEL_GLIB_GROUP
#undef QEL_GLIB_FUNCTION
#undef QEL_GLIB_CALLED
#undef QEL_GLIB_GROUP_END
// clang-format on

}  // namespace glib
}  // namespace qel
