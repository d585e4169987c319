#include "desktop/glib_api.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>

#include "log/log.h"

namespace qel {
namespace {

// The name and the group of each function, in the order of glib_functions.def. The functions of a group are adjacent.
constexpr const char* kFunctionNames[] = {
#define QEL_GLIB_FUNCTION(group, name) #name,
#include "desktop/glib_functions.def"
};
constexpr GLibGroup kFunctionGroups[] = {
#define QEL_GLIB_FUNCTION(group, name) GLibGroup::group,
#include "desktop/glib_functions.def"
};
static_assert(std::ranges::is_sorted(kFunctionGroups));
LibraryFunction function_table[std::size(kFunctionNames)];

constexpr const char* kGLib[] = {"libglib-2.0.so.0", "libglib-2.0.so", nullptr};
constexpr const char* kGObject[] = {"libgobject-2.0.so.0", "libgobject-2.0.so", nullptr};
constexpr const char* kGConf[] = {"libgconf-2.so.4", "libgconf-2.so.0", "libgconf-2.so", nullptr};
constexpr const char* kGio[] = {"libgio-2.0.so.0", "libgio-2.0.so", nullptr};
constexpr const char* kGtk[] = {"libgtk-3.so.0", nullptr};
constexpr const char* kGdk[] = {"libgdk-3.so.0", nullptr};

constexpr LibraryGroup MakeGroup(GLibGroup group, const char* name, const char* const* library_names) {
  const auto [first, last] = std::equal_range(std::begin(kFunctionGroups), std::end(kFunctionGroups), group);
  const auto begin = first - kFunctionGroups;
  return {name,    kFunctionNames + begin, function_table + begin, static_cast<std::uint32_t>(last - first),
          nullptr, library_names};
}

constinit std::array<LibraryGroup, kGLibGroupCount> groups = {
    MakeGroup(GLibGroup::kBase, "GLib Base", kGLib),
    MakeGroup(GLibGroup::kGObject, "GObject", kGObject),
    MakeGroup(GLibGroup::kGConf, "GConf", kGConf),
    MakeGroup(GLibGroup::kGVariant, "GVariant", kGLib),
    MakeGroup(GLibGroup::kGSettings, "GSettings", kGio),
    MakeGroup(GLibGroup::kGDBus, "GDBus", kGio),
    MakeGroup(GLibGroup::kGVfs, "GVFS", kGio),
    MakeGroup(GLibGroup::kGtk, "GTK", kGtk),
    MakeGroup(GLibGroup::kGdk, "GDK", kGdk),
};

bool is_initialised = false;

// Makes GLib allocate small blocks with malloc() instead of its own pools, which cost an idle process 0.1 MB more. GLib
// reads the variable when it is loaded; after that it is removed, so that started programs do not inherit it. A value
// that the user has set is not changed.
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

LibraryFunction glib::TableEntry(Index index) {
  return function_table[static_cast<std::size_t>(index)];
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
