#include "desktop/glib_api.h"

#include <array>
#include <cstdlib>
#include <iterator>

#include "log/log.h"

namespace qel {
namespace {

// One array of names per group, and a function table of the same length.
// clang-format off
#define QEL_GLIB_GROUP(group, ...) constexpr const char* const group##FunctionNames[] = {
#define QEL_GLIB_FUNCTION(name) #name,
#define QEL_GLIB_CALLED(name, ...) #name,
#define QEL_GLIB_GROUP_END() };
#include "desktop/glib_functions.def"
#undef QEL_GLIB_GROUP
#undef QEL_GLIB_FUNCTION
#undef QEL_GLIB_CALLED
#undef QEL_GLIB_GROUP_END

#define QEL_GLIB_FUNCTION(name)
#define QEL_GLIB_CALLED(name, ...)
#define QEL_GLIB_GROUP_END()
#define QEL_GLIB_GROUP(group, name, ...) \
  constexpr const char* const group##LibraryNames[] = {__VA_ARGS__, nullptr}; \
  LibraryFunction group##FunctionTable[std::size(group##FunctionNames)];
#include "desktop/glib_functions.def"
#undef QEL_GLIB_GROUP

std::array<LibraryGroup, kGLibGroupCount> groups = {{
#define QEL_GLIB_GROUP(group, name, ...) \
  {name, group##FunctionNames, group##FunctionTable, std::size(group##FunctionNames), nullptr, group##LibraryNames},
#include "desktop/glib_functions.def"
#undef QEL_GLIB_GROUP
}};
#undef QEL_GLIB_FUNCTION
#undef QEL_GLIB_CALLED
#undef QEL_GLIB_GROUP_END
// clang-format on

bool is_initialised = false;

// Tells GLib, while it is loaded, to take small blocks from malloc() too: its own pools keep a tenth of a megabyte more
// in an idle process. Started programs must not find the variable; whoever set it has his way.
class WithoutPools {
 public:
  WithoutPools() : is_mine_(std::getenv(kVariable) == nullptr) {
    if (is_mine_) {
      setenv(kVariable, "always-malloc", 1);
    }
  }
  ~WithoutPools() {
    if (is_mine_) {
      unsetenv(kVariable);
    }
  }
  WithoutPools(const WithoutPools&) = delete;
  WithoutPools& operator=(const WithoutPools&) = delete;

 private:
  static constexpr const char* kVariable = "G_SLICE";
  bool is_mine_;
};

bool IsLoaded(GLibGroup group) {
  return groups[static_cast<std::size_t>(group)].handle != nullptr;
}

}  // namespace

LibraryFunction glib::TableEntry(GLibGroup group, std::size_t index) {
  return groups[static_cast<std::size_t>(group)].function_table[index];
}

bool IsGLibGroupAvailable(GLibGroup group) {
  if (static_cast<std::size_t>(group) >= kGLibGroupCount || !IsLoaded(group)) {
    return false;
  }
  if (group >= GLibGroup::kGObject && !IsLoaded(GLibGroup::kBase)) {
    return false;
  }
  if (group >= GLibGroup::kGConf && !IsLoaded(GLibGroup::kGObject)) {
    return false;
  }
  switch (group) {
    case GLibGroup::kGSettings:
    case GLibGroup::kGDBus:
      return IsLoaded(GLibGroup::kGVariant);
    case GLibGroup::kGdk:
      return IsLoaded(GLibGroup::kGtk);
    default:
      return true;
  }
}

void GLibApiInit(std::uint32_t mask) {
  if (is_initialised) {
    return;
  }
  is_initialised = true;
  const WithoutPools without_pools;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if ((mask >> i & 1U) != 0) {
      LoadLibraryGroups(&groups[i], 1);
    }
  }
  if (!IsGLibGroupAvailable(GLibGroup::kGObject)) {
    LogError(kModuleLoader, "Error: Can't initialize GLib API");
    GLibApiDeinit();
    return;
  }
  glib::g_type_init();
  LogInfo(kModuleLoader, "GLib API initialized");
  if (IsGLibGroupAvailable(GLibGroup::kGtk)) {
    glib::gtk_init(nullptr, nullptr);
    LogInfo(kModuleLoader, "GTK API initialized");
  }
}

void GLibApiDeinit() {
  if (!is_initialised) {
    return;
  }
  is_initialised = false;
  UnloadLibraryGroups(groups.data(), kGLibGroupCount);
  LogInfo(kModuleLoader, "GLib API deinitialized");
}

}  // namespace qel
