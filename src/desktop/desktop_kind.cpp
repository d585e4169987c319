#include "desktop/desktop_kind.h"

#include <X11/Xatom.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

#include "base/owner.h"
#include "base/respondent.h"
#include "desktop/dbus_api.h"
#include "log/log.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

// Values of an environment variable that name a desktop. Compared exactly.
struct EnvironmentSign {
  const char* variable;
  std::string_view value;
  DesktopKind kind;
};

constexpr EnvironmentSign kEnvironmentSigns[] = {
    {"XDG_CURRENT_DESKTOP", "Unity", DesktopKind::kUnity},     {"XDG_CURRENT_DESKTOP", "GNOME", DesktopKind::kGnome},
    {"XDG_CURRENT_DESKTOP", "KDE", DesktopKind::kKde},         {"XDG_CURRENT_DESKTOP", "XFCE", DesktopKind::kXfce},
    {"XDG_CURRENT_DESKTOP", "LXDE", DesktopKind::kLxde},       {"DESKTOP_SESSION", "gnome", DesktopKind::kGnome},
    {"DESKTOP_SESSION", "gnome-classic", DesktopKind::kGnome}, {"DESKTOP_SESSION", "gnome-2d", DesktopKind::kGnome},
    {"DESKTOP_SESSION", "xfce", DesktopKind::kXfce},           {"DESKTOP_SESSION", "xfce4", DesktopKind::kXfce},
    {"DESKTOP_SESSION", "Xfce Session", DesktopKind::kXfce},   {"DESKTOP_SESSION", "LXDE", DesktopKind::kLxde},
    {"DESKTOP_SESSION", "Lubuntu", DesktopKind::kLxde},        {"KDE_FULL_SESSION", "true", DesktopKind::kKde},
};

std::optional<DesktopKind> KindFromEnvironment() {
  for (const EnvironmentSign& sign : kEnvironmentSigns) {
    const char* const value = std::getenv(sign.variable);
    if (value != nullptr && value == sign.value) {
      return sign.kind;
    }
  }
  if (std::getenv("GNOME_DESKTOP_SESSION_ID") != nullptr) {
    return DesktopKind::kGnome;
  }
  return std::nullopt;
}

void UnrefMessage(DBusMessage* message) {
  dbus_api.dbus_message_unref(message);
}

// Sends the system bus the question who owns the name of the GNOME session manager, and returns whether that worked.
// The answer is not read: a bus that accepts the message already counts as GNOME. The call may block for ever, because
// connecting to a bus needs several answers of it.
bool SendGnomeProbe() {
  // The library owns the connection and keeps it open. If the library were unmapped after the probe, the next probe
  // would open another connection, and each detection would leak a descriptor and its buffers.
  DBusLibKeepMapped();

  DBusError error;
  dbus_api.dbus_error_init(&error);
  DBusConnection* const connection = dbus_api.dbus_bus_get(DBUS_BUS_SYSTEM, &error);
  if (connection == nullptr) {
    LogError(kModuleAgent, "Error: Connection to D-BUS daemon failed: %s", error.message);
    dbus_api.dbus_error_free(&error);
    return false;
  }
  const Owner<DBusMessage, UnrefMessage> message(dbus_api.dbus_message_new_method_call(
      "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner"));
  if (message == nullptr) {
    return false;
  }
  const char* const name = "org.gnome.SessionManager";
  dbus_api.dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
  dbus_api.dbus_message_set_no_reply(message.get(), TRUE);
  if (!dbus_api.dbus_connection_send(connection, message.get(), nullptr)) {
    return false;
  }
  dbus_api.dbus_connection_flush(connection);
  return true;
}

DesktopKind KindFromBus() {
  constexpr std::chrono::seconds kPatience{2};
  static Respondent bus("the system bus");
  // The library is loaded and unloaded inside of the question, because a question that is too late still uses it.
  const std::optional<bool> is_gnome = bus.AskWithin<bool>(kPatience, [] {
    if (DBusLibLoad() != 0) {
      return false;
    }
    const bool sent = SendGnomeProbe();
    DBusLibUnload();
    return sent;
  });
  if (!is_gnome.value_or(false)) {
    return DesktopKind::kUnity;
  }
  LogInfo(kModuleAgent, "Gnome detected via DBus");
  return DesktopKind::kGnome;
}

}  // namespace

bool RootWindowHasCardinalProperty(Display* display, const char* property_name) {
  const Atom property = x_api.XInternAtom(display, property_name, True);
  if (property == None) {
    return false;
  }
  Atom type = None;
  int format = 0;
  unsigned long item_count = 0;
  unsigned long bytes_left = 0;
  unsigned char* raw = nullptr;
  const int status = x_api.XGetWindowProperty(display, XDefaultRoot(display), property, 0, 1, False, XA_CARDINAL, &type,
                                              &format, &item_count, &bytes_left, &raw);
  const std::unique_ptr<unsigned char, XFreeDeleter> data(raw);
  return status == Success && data != nullptr && type == XA_CARDINAL && item_count > 0;
}

DesktopKind DetectDesktopKind(Display* display) {
  if (const std::optional<DesktopKind> kind = KindFromEnvironment()) {
    return *kind;
  }
  if (RootWindowHasCardinalProperty(display, "_UNITY_NET_WORKAREA_REGION")) {
    return DesktopKind::kUnity;
  }
  if (RootWindowHasCardinalProperty(display, "KDE_SESSION_VERSION")) {
    return DesktopKind::kKde;
  }
  return KindFromBus();
}

}  // namespace qel
