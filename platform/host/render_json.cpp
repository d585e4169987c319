#include "host/render_json.h"

#include <nlohmann/json.hpp>

namespace qel::host {
namespace {

using Json = nlohmann::ordered_json;

std::string Dump(const Json& json) {
  // Texts of the menu have the encoding of the guest, which may not be UTF-8.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ToJson(const Icon& icon) {
  if (icon.IsEmpty()) return nullptr;
  if (!icon.argb) return {{"kind", "file"}, {"bytes", icon.ByteCount()}};
  return {{"kind", "argb"}, {"width", icon.width}, {"height", icon.height}, {"bytes", icon.ByteCount()}};
}

Json ToJson(const MenuEntry& entry) {
  Json json = {{"path", entry.path}, {"name", entry.name}, {"time", entry.time}};
  json["location"] = entry.location ? Json(*entry.location) : Json(nullptr);
  json["icon"] = entry.icon ? ToJson(*entry.icon) : Json(nullptr);
  return json;
}

struct AddFields {
  Json& json;

  void operator()(const Probe&) const {}
  void operator()(const FinishEnum&) const {}
  void operator()(const RegisterService& m) const {
    json["name"] = m.name;
    json["layout"] = LayoutName(m.layout);
    if (m.title) json["title"] = *m.title;
    if (m.version) {
      json["version"] = {{"major", m.version->major},     {"minor", m.version->minor},
                         {"build", m.version->build},     {"flags_a", m.version->flags_a},
                         {"flags_b", m.version->flags_b}, {"product", m.version->product}};
    }
    if (m.session) json["session"] = *m.session;
    if (m.extra) json["extra_bytes"] = m.extra->size();
  }
  void operator()(const UnregisterService& m) const {
    json["name"] = m.name;
    json["layout"] = LayoutName(m.layout);
  }
  void operator()(const ToolState& m) const { json["active"] = m.active; }
  void operator()(const AddRun& m) const {
    Ids(m.pid, m.window);
    json["flags"] = m.flags;
    json["name"] = m.name;
    json["path"] = m.path;
    json["title"] = m.title;
    json["icon"] = ToJson(m.icon);
    json["small_icon"] = m.small_icon ? ToJson(*m.small_icon) : Json(nullptr);
  }
  void operator()(const RmvRun& m) const { Ids(m.pid, m.window); }
  void operator()(const HiddenWindows& m) const {
    json["context_a"] = m.context_a;
    json["context_b"] = m.context_b;
    json["windows"] = m.windows;
  }
  void operator()(const WindowTitle& m) const {
    Ids(m.pid, m.window);
    json["title"] = m.title;
  }
  void operator()(const RmvRunByPath& m) const {
    json["pid"] = m.pid;
    json["path"] = m.path;
  }
  void operator()(const AppMenu& m) const {
    json["entries"] = Json::array();
    for (const MenuEntry& entry : m.entries) json["entries"].push_back(ToJson(entry));
  }
  void operator()(const UpdateAppIcon& m) const {
    Ids(m.pid, m.window);
    json["icon"] = ToJson(m.icon);
  }
  void operator()(const Fetch& m) const {
    json["large"] = m.large;
    json["room"] = m.capacity;
  }
  void operator()(const Unknown& m) const {
    json["request_code"] = m.request_code;
    if (m.command) json["command_code"] = *m.command;
  }
  void Ids(std::uint32_t pid, std::uint32_t window) const {
    json["pid"] = pid;
    json["window"] = window;
  }
};

}  // namespace

std::string EventToJson(const Event& event) {
  Json json;
  json["sequence"] = event.sequence;
  json["time"] = std::chrono::duration<double>(event.time.time_since_epoch()).count();
  json["agent"] = event.agent;
  json["message"] = KindName(KindOf(event.notification));
  std::visit(AddFields{json}, event.notification);
  if (event.command) json["command"] = *event.command;
  json["outcome"] = OutcomeName(event.outcome);
  json["violations"] = event.violations;
  json["remarks"] = event.remarks;
  return Dump(json);
}

std::string ApplicationsToJson(const ModelState& state) {
  Json list = Json::array();
  for (const auto& [pid, application] : state.applications) {
    Json windows = Json::array();
    for (const auto& [id, window] : application.windows) {
      windows.push_back({{"window", id},
                         {"name", window.name},
                         {"path", window.path},
                         {"title", window.title},
                         {"icon", ToJson(window.icon)},
                         {"small_icon", window.small_icon ? ToJson(*window.small_icon) : Json(nullptr)},
                         {"hidden", state.hidden_windows.count(id) > 0}});
    }
    list.push_back({{"pid", pid}, {"windows", windows}});
  }
  return Dump({{"reply", "applications"}, {"applications", list}});
}

std::string MenuToJson(const AppMenu& menu) {
  Json list = Json::array();
  for (const MenuEntry& entry : menu.entries) list.push_back(ToJson(entry));
  return Dump({{"reply", "menu"}, {"entries", list}});
}

std::string StatusToJson(const ModelState& state, std::size_t commands_waiting) {
  Json json = {{"reply", "status"}};
  json["tool_active"] = state.tool_active ? Json(*state.tool_active) : Json(nullptr);
  json["enumeration_finished"] = state.enumeration_finished;
  json["applications"] = state.applications.size();
  json["windows"] = state.WindowCount();
  json["messages"] = state.messages;
  json["violations"] = state.violations;
  json["remarks"] = state.remarks;
  json["commands_waiting"] = commands_waiting;
  Json& counts = json["counts"];
  for (std::size_t i = 0; i < kMessageKinds; ++i) counts[KindName(static_cast<MessageKind>(i))] = state.counts[i];
  return Dump(json);
}

}  // namespace qel::host
