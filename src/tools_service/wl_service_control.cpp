#include "tools_service/wl_service_control.h"

#include <cstdlib>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include "log/log.h"
#include "tools_service/active_console.h"
#include "tools_service/dri_api.h"
#include "tools_service/wayland_api.h"

namespace qel {
namespace {

constexpr unsigned long kMaxVirtualTerminal = 63;

// Request numbers of the Wayland protocol, counted per interface.
constexpr std::uint32_t kDisplayGetRegistry = 1;
constexpr std::uint32_t kRegistryBind = 0;

constexpr std::string_view kOutputInterface = "wl_output";
constexpr std::uint32_t kOutputVersion = 1;

// Placeholder argument for the object that a request creates.
constexpr void* kNewId = nullptr;

// Runs the body of a listener and catches its exceptions, because the caller is a C library.
template <typename Action>
void Guarded(Action&& action) noexcept {
  try {
    action();
  } catch (const std::exception& error) {
    LogError(kModuleService, "Error: Tools Service: Wayland event lost (%s)", error.what());
  }
}

}  // namespace

// The callbacks. Their parameters are the listener's data, the object, and then the arguments of the event.
struct QelWlServiceControl::Listeners {
  using Function = void (*)();

  static QelWlServiceControl& Control(void* data) { return *static_cast<QelWlServiceControl*>(data); }

  static void RegistryGlobal(void* data, wl_proxy* registry, std::uint32_t name, const char* interface,
                             std::uint32_t /*version*/) {
    LogInfo(kModuleService, "Tools Service: %s(name=%d, interface='%s')", "WlRegistryListener_global", name, interface);
    if (interface == kOutputInterface) {
      Guarded([&] { Control(data).AddOutput(registry, name); });
    }
  }

  static void RegistryGlobalRemove(void* data, wl_proxy* /*registry*/, std::uint32_t name) {
    LogInfo(kModuleService, "Tools Service: %s(name=%d)", "WlRegistryListener_global_remove", name);
    Control(data).RemoveOutput(name);
  }

  static void OutputGeometry(void* /*data*/, wl_proxy* output, std::int32_t x, std::int32_t y,
                             std::int32_t physical_width, std::int32_t physical_height, std::int32_t /*subpixel*/,
                             const char* /*make*/, const char* /*model*/, std::int32_t /*transform*/) {
    LogInfo(kModuleService, "Tools Service: %s(output=%p, x=%d, y=%d, physical_width=%d, physical_height=%d)",
            "WlOutputListener_geometry", static_cast<void*>(output), x, y, physical_width, physical_height);
  }

  static void OutputMode(void* data, wl_proxy* output, std::uint32_t flags, std::int32_t width, std::int32_t height,
                         std::int32_t refresh) {
    LogInfo(kModuleService, "Tools Service: %s(output=%p, width=%d, height=%d, flags=%x)", "WlOutputListener_mode",
            static_cast<void*>(output), width, height, flags);
    Guarded([&] { Control(data).pending_.push_back({kWlOutputMode, output, width, height, refresh, flags}); });
  }

  static void OutputDone(void* /*data*/, wl_proxy* output) {
    LogInfo(kModuleService, "Tools Service: %s(output=%p)", "WlOutputListener_done", static_cast<void*>(output));
  }

  static void OutputScale(void* /*data*/, wl_proxy* output, std::int32_t factor) {
    LogInfo(kModuleService, "Tools Service: %s(output=%p, factor=%d)", "WlOutputListener_scale",
            static_cast<void*>(output), factor);
  }

  static Function of_registry[];
  static Function of_output[];
};

// One function per event, in protocol order. An output of version 1 never sends the last two events.
QelWlServiceControl::Listeners::Function QelWlServiceControl::Listeners::of_registry[] = {
    reinterpret_cast<Function>(RegistryGlobal),
    reinterpret_cast<Function>(RegistryGlobalRemove),
};
QelWlServiceControl::Listeners::Function QelWlServiceControl::Listeners::of_output[] = {
    reinterpret_cast<Function>(OutputGeometry),
    reinterpret_cast<Function>(OutputMode),
    reinterpret_cast<Function>(OutputDone),
    reinterpret_cast<Function>(OutputScale),
};

QelWlServiceControl::QelWlServiceControl(std::string tty_root)
    : QelBaseServiceControl("Wayland"), tty_root_(std::move(tty_root)) {}

bool QelWlServiceControl::Init(key_t key, bool own_user_session) {
  if (!QelBaseServiceControl::Init(key, own_user_session)) {
    return false;
  }
  DriApiInit();
  if (!WaylandApiInit()) {
    QelBaseServiceControl::Deinit();
    return false;
  }

  const char* display = std::getenv("WAYLAND_DISPLAY");
  if (display == nullptr) {
    LogWarning(kModuleService,
               "Warning: Tools Service: no WAYLAND_DISPLAY environment variable found, will use default");
    display = "wayland-0";
  }
  display_name_ = display;
  tty_name_ = SessionTty();
  LogInfo(kModuleService, "Tools Service: initialized Wayland service on display '%s', VT '%s'", display_name_.c_str(),
          tty_name_.c_str());
  return true;
}

// The console of this session: the one in XDG_VTNR, which the login manager sets, or else the current one.
std::string QelWlServiceControl::SessionTty() const {
  const char* number = std::getenv("XDG_VTNR");
  if (number == nullptr) {
    LogWarning(kModuleService, "Warning: Tools Service: no XDG_VTNR environment variable found, will use current");
    return CurrentConsole(tty_root_);
  }
  // The conversion to unsigned makes a negative number too large.
  const auto value = static_cast<unsigned long>(std::strtol(number, nullptr, 10));
  return value <= kMaxVirtualTerminal ? "tty" + std::to_string(value) : std::string();
}

bool QelWlServiceControl::Deinit() {
  if (!QelBaseServiceControl::Deinit()) {
    return false;
  }
  WaylandApiDeinit();
  DriApiDeinit();
  LogInfo(kModuleService, "Tools Service: deinitialized Wayland service");
  return true;
}

bool QelWlServiceControl::OwnUserSession() {
  return session_lock_.Acquire(display_name_);
}

bool QelWlServiceControl::IsConsoleActive() {
  return !tty_name_.empty() && CurrentConsole(tty_root_) == tty_name_;
}

bool QelWlServiceControl::Connect() {
  const QelWlApi& api = WaylandApi();
  wl_display* const display = api.display_connect(nullptr);  // null: the library reads WAYLAND_DISPLAY itself
  if (display == nullptr) {
    LogError(kModuleService, "Error: Tools Service: can't open connection to Wayland!");
    return false;
  }
  context_ = {.connection_type = kConnectionWayland, .display = display, .control_extension_opcode = 0};

  display_wrapper_ = api.proxy_create_wrapper(display);
  if (display_wrapper_ == nullptr) {
    LogError(kModuleService, "Error: Tools Service: Couldn't create Wayland display wrapper!\n");
    return false;
  }
  event_queue_ = api.display_create_queue(display);
  if (event_queue_ == nullptr) {
    LogError(kModuleService, "Error: Tools Service: Couldn't create to Wayland queue!\n");
    return false;
  }
  // Objects that are created through the wrapper inherit its queue.
  auto* const wrapper = static_cast<wl_proxy*>(display_wrapper_);
  api.proxy_set_queue(wrapper, event_queue_);
  api.display_flush(display);
  registry_ = api.proxy_marshal_constructor(wrapper, kDisplayGetRegistry, api.registry_interface, kNewId);
  if (registry_ == nullptr) {
    LogError(kModuleService, "Error: Tools Service: Couldn't create to Wayland display registry!\n");
    return false;
  }
  int result = api.proxy_add_listener(registry_, Listeners::of_registry, this);
  if (result < 0) {
    LogError(kModuleService, "Error: Tools Service: Couldn't add Wayland registry listener (res=%d)!\n", result);
    return false;
  }
  result = api.display_roundtrip_queue(display, event_queue_);
  if (result < 0) {
    LogError(kModuleService, "Error: Tools Service: Couldn't roundtrip Wayland queue (res=%d)!\n", result);
    return false;
  }
  return true;
}

void QelWlServiceControl::AddOutput(wl_proxy* registry, std::uint32_t name) {
  const auto [entry, is_new] = outputs_.try_emplace(name, nullptr);
  if (!is_new) {
    LogWarning(kModuleService, "Warning: Tools Service: output already initialized");
    return;
  }
  const QelWlApi& api = WaylandApi();
  wl_proxy* const output =
      api.proxy_marshal_constructor_versioned(registry, kRegistryBind, api.output_interface, kOutputVersion, name,
                                              kOutputInterface.data(), kOutputVersion, kNewId);
  // Null when the library is out of memory.
  const int result = output != nullptr ? api.proxy_add_listener(output, Listeners::of_output, this) : -1;
  if (result < 0) {
    LogError(kModuleService, "Error: Tools Service: Couldn't add Wayland output listener (res=%d) for wloutput=%p !\n",
             result, static_cast<void*>(output));
  }
  if (output == nullptr) {
    outputs_.erase(entry);
    return;
  }
  entry->second = output;
  LogInfo(kModuleService, "Tools Service: output (name=%d, wloutput=%p) added%s", name, static_cast<void*>(output),
          result < 0 ? "with errors" : "");
}

void QelWlServiceControl::RemoveOutput(std::uint32_t name) {
  const auto entry = outputs_.find(name);
  if (entry == outputs_.end()) {
    return;
  }
  WaylandApi().proxy_destroy(entry->second);
  LogInfo(kModuleService, "Tools Service: output (name=%d, wloutput=%p) removed", name,
          static_cast<void*>(entry->second));
  outputs_.erase(entry);
}

void QelWlServiceControl::DispatchEvents() {
  if (State() != kServiceRunning) {
    return;
  }
  const int result = WaylandApi().display_roundtrip_queue(Display(), event_queue_);
  if (result < 0) {
    LogError(kModuleService, "Error: Tools Service: Couldn't roundtrip Wayland queue (res=%d), while handle events",
             result);
    Stop();
    pending_.clear();
    return;
  }
  for (WlOutputEvent& event : pending_) {
    HandOut(&event);
  }
  pending_.clear();
}

void QelWlServiceControl::Disconnect() {
  session_lock_.Release();
  const QelWlApi& api = WaylandApi();
  for (const auto& [name, output] : outputs_) {
    api.proxy_set_user_data(output, nullptr);
    api.proxy_destroy(output);
  }
  outputs_.clear();
  pending_.clear();  // these events refer to destroyed outputs
  if (registry_ != nullptr) {
    api.proxy_destroy(std::exchange(registry_, nullptr));
  }
  if (event_queue_ != nullptr) {
    api.event_queue_destroy(std::exchange(event_queue_, nullptr));
  }
  if (display_wrapper_ != nullptr) {
    api.proxy_wrapper_destroy(std::exchange(display_wrapper_, nullptr));
  }
  api.display_disconnect(Display());
}

}  // namespace qel
