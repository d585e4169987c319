#include "icons/icon_theme_name.h"

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "base/owner.h"
#include "base/respondent.h"
#include "desktop/glib_api.h"
#include "files/key_file.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr const char* kInterfaceSchema = "org.gnome.desktop.interface";
constexpr const char* kNoChoice = "hicolor";
constexpr std::chrono::seconds kPatience{2};  // both stores may use the session bus

// Owns an untyped object of the GLib libraries.
template <auto release>
using Owned = Owner<void, release>;

// Must be checked first: g_settings_new() aborts the program when the schema is not installed.
bool IsSchemaInstalled(std::string_view wanted) {
  const char* const* schema = glib::g_settings_list_schemas();
  if (schema == nullptr) {
    return false;
  }
  while (*schema != nullptr && *schema != wanted) {
    ++schema;
  }
  return *schema != nullptr;
}

std::string LogFound(const char* desktop, std::string theme) {
  if (!theme.empty()) {
    LogInfo(kModuleAgent, "Found icon theme for %s: '%s'", desktop, theme.c_str());
  }
  return theme;
}

std::string OrElse(const std::string& theme, const char* otherwise) {
  return theme.empty() ? otherwise : theme;
}

const char* NameInLog(DesktopKind kind) {
  switch (kind) {
    case DesktopKind::kUnity:
      return "Unity";
    case DesktopKind::kGnome:
      return "Gnome";
    case DesktopKind::kKde:
      return "KDE";
    case DesktopKind::kXfce:
      return "Xfce";
    case DesktopKind::kLxde:
      return "Lxde";
  }
  return "";
}

std::string AskGSettings() {
  glib::g_type_init();
  if (!IsSchemaInstalled(kInterfaceSchema)) {
    return {};
  }
  const Owned<glib::g_object_unref> settings(glib::g_settings_new(kInterfaceSchema));
  if (settings == nullptr) {
    return {};
  }
  const Owner<char, glib::g_free> theme(glib::g_settings_get_string(settings.get(), "icon-theme"));
  return theme == nullptr ? std::string() : theme.get();
}

std::string AskGConf() {
  const Owned<glib::gconf_engine_unref> engine(glib::gconf_engine_get_default());
  if (engine == nullptr) {
    return {};
  }
  GErrorRecord* raw_error = nullptr;
  const Owned<glib::gconf_value_free> value(
      glib::gconf_engine_get(engine.get(), "/desktop/gnome/interface/icon_theme", &raw_error));
  const Owner<GErrorRecord, glib::g_error_free> error(raw_error);
  if (error != nullptr) {
    LogError(kModuleAgent, "Error: GConf error: %s", error->message);
    return {};
  }
  const char* const theme = value == nullptr ? nullptr : glib::gconf_value_get_string(value.get());
  return theme == nullptr ? std::string() : theme;
}

}  // namespace

std::string ReadGSettingsIconTheme() {
  static Respondent store("GSettings");
  if (!IsGLibGroupAvailable(GLibGroup::kGSettings)) {
    return {};
  }
  return store.AskWithin<std::string>(kPatience, AskGSettings).value_or("");
}

std::string ReadGConfIconTheme() {
  static Respondent store("GConf");
  if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr) {
    LogInfo(kModuleAgent, "Warning: DBUS_SESSION_BUS_ADDRESS is not set. Problems with GConf are possible");
  }
  if (!IsGLibGroupAvailable(GLibGroup::kGConf)) {
    return {};
  }
  return store.AskWithin<std::string>(kPatience, AskGConf).value_or("");
}

std::string ReadKdeIconTheme() {
  const char* const home = std::getenv("HOME");
  if (home == nullptr) {
    return {};
  }
  KeyFileValues values{{"Icons", {{"Theme", ""}}}};
  ReadKeyFile(std::string(home) + "/.kde/share/config/kdeglobals", values);
  return values["Icons"]["Theme"];
}

std::string CurrentIconThemeName(DesktopKind kind) {
  const char* const desktop = NameInLog(kind);
  LogInfo(kModuleAgent, "Detected desktop environment: %s", desktop);
  switch (kind) {
    case DesktopKind::kUnity:
      return OrElse(LogFound(desktop, ReadGSettingsIconTheme()), "ubuntu-mono-light");
    case DesktopKind::kGnome: {
      std::string theme = ReadGSettingsIconTheme();
      if (theme.empty()) {
        theme = ReadGConfIconTheme();
      }
      return OrElse(LogFound(desktop, std::move(theme)), kNoChoice);
    }
    case DesktopKind::kKde:
      return OrElse(LogFound(desktop, ReadKdeIconTheme()), kNoChoice);
    default:
      return kNoChoice;
  }
}

}  // namespace qel
