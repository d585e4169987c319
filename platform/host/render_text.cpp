#include "host/render_text.h"

#include <ctime>

#include "host/menu_tree.h"

namespace qel::host {
namespace {

std::string OptionalText(const char* name, const std::optional<std::string>& text) {
  return text ? Format(" %s=%s", name, Quote(*text).c_str()) : std::string();
}

// The fields of a message, each after a space.
struct Fields {
  std::string operator()(const Probe&) const { return {}; }
  std::string operator()(const FinishEnum&) const { return {}; }
  std::string operator()(const RegisterService& m) const {
    std::string text = Format(" name=%s layout=%s", Quote(m.name).c_str(), LayoutName(m.layout));
    text += OptionalText("title", m.title);
    if (m.version) {
      text += Format(" version=%u.%u.%u flags=%u,%u product=%u", m.version->major, m.version->minor, m.version->build,
                     m.version->flags_a, m.version->flags_b, m.version->product);
    }
    text += OptionalText("session", m.session);
    if (m.extra) text += Format(" extra=%zu bytes", m.extra->size());
    return text;
  }
  std::string operator()(const UnregisterService& m) const {
    return Format(" name=%s layout=%s", Quote(m.name).c_str(), LayoutName(m.layout));
  }
  std::string operator()(const ToolState& m) const { return m.active ? " active" : " inactive"; }
  std::string operator()(const AddRun& m) const {
    std::string text =
        Format(" pid=%u window=0x%x flags=0x%x name=%s path=%s title=%s icon=%s", m.pid, m.window, m.flags,
               Quote(m.name).c_str(), Quote(m.path).c_str(), Quote(m.title).c_str(), RenderIcon(m.icon).c_str());
    if (m.small_icon) text += " small-icon=" + RenderIcon(*m.small_icon);
    return text;
  }
  std::string operator()(const RmvRun& m) const { return Format(" pid=%u window=0x%x", m.pid, m.window); }
  std::string operator()(const HiddenWindows& m) const {
    std::string text = Format(" context-a=%u context-b=%u windows=", m.context_a, m.context_b);
    const char* separator = "";
    for (const std::uint32_t window : m.windows) {
      text += Format("%s0x%x", separator, window);
      separator = ",";
    }
    return text;
  }
  std::string operator()(const WindowTitle& m) const {
    return Format(" pid=%u window=0x%x title=%s", m.pid, m.window, Quote(m.title).c_str());
  }
  std::string operator()(const RmvRunByPath& m) const {
    return Format(" pid=%u path=%s", m.pid, Quote(m.path).c_str());
  }
  std::string operator()(const AppMenu& m) const {
    std::size_t icons = 0;
    for (const MenuEntry& entry : m.entries) icons += entry.icon.has_value();
    return Format(" entries=%zu icons=%zu", m.entries.size(), icons);
  }
  std::string operator()(const UpdateAppIcon& m) const {
    return Format(" pid=%u window=0x%x icon=%s", m.pid, m.window, RenderIcon(m.icon).c_str());
  }
  std::string operator()(const Fetch& m) const {
    return Format(" %s room=%u", m.large ? "large" : "first", m.capacity);
  }
  std::string operator()(const Unknown& m) const {
    std::string text = Format(" request=0x%x", m.request_code);
    if (m.command) text += Format(" command=%u", *m.command);
    return text;
  }
};

void RenderFolder(const MenuFolder& folder, const std::string& indent, std::string& text) {
  for (const auto& [name, inner] : folder.folders) {
    text += indent + name + "/\n";
    RenderFolder(inner, indent + "  ", text);
  }
  for (const MenuEntry* entry : folder.entries) {
    text += indent + Quote(entry->name) + "  " + entry->path + "  icon " +
            (entry->icon ? Format("%zu bytes", entry->icon->ByteCount()) : "none") + "\n";
  }
}

}  // namespace

std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      quoted += Format("\\x%02x", byte);
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

std::string RenderIcon(const Icon& icon) {
  if (icon.IsEmpty()) return "none";
  if (!icon.argb) return Format("file(%zu bytes)", icon.ByteCount());
  return Format("%ux%u(%zu bytes)", icon.width, icon.height, icon.ByteCount());
}

std::string RenderEvent(const Event& event) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(event.time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(event.time.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::string line =
      Format("%llu %02d:%02d:%02d.%03d [%d] %s", static_cast<unsigned long long>(event.sequence), local.tm_hour,
             local.tm_min, local.tm_sec, static_cast<int>(millis), event.agent, KindName(KindOf(event.notification)));
  line += std::visit(Fields{}, event.notification);
  if (event.command) line += " command=" + *event.command;
  if (event.outcome != Outcome::kTaken) line += Format(" (%s)", OutcomeName(event.outcome));
  for (const std::string& text : event.violations) line += " VIOLATION: " + text + ";";
  for (const std::string& text : event.remarks) line += " remark: " + text + ";";
  return line;
}

std::string RenderApplications(const ModelState& state) {
  std::string text;
  for (const auto& [pid, application] : state.applications) {
    if (application.windows.empty()) continue;
    const Window& first = application.windows.begin()->second;
    text += Format("%u  %s  %s  %zu window(s)\n", pid, Quote(first.name).c_str(), first.path.c_str(),
                   application.windows.size());
  }
  return text.empty() ? "no applications\n" : text;
}

std::string RenderWindows(const ModelState& state) {
  std::string text;
  for (const auto& [pid, application] : state.applications) {
    for (const auto& [id, window] : application.windows) {
      text += Format("0x%x  pid %u  %s  icon %s%s\n", id, pid, Quote(window.title).c_str(),
                     RenderIcon(window.icon).c_str(), state.hidden_windows.count(id) > 0 ? "  hidden" : "");
    }
  }
  return text.empty() ? "no windows\n" : text;
}

std::string RenderMenu(const AppMenu& menu) {
  std::string text;
  RenderFolder(BuildMenuTree(menu), "", text);
  return text.empty() ? "an empty menu\n" : text;
}

std::string RenderStatus(const ModelState& state, std::size_t commands_waiting) {
  const char* tool = !state.tool_active ? "unknown" : *state.tool_active ? "active" : "inactive";
  std::string text = Format("tool %s, enumeration %s, %zu application(s), %zu window(s), %zu hidden\n", tool,
                            state.enumeration_finished ? "finished" : "not finished", state.applications.size(),
                            state.WindowCount(), state.hidden_windows.size());
  for (const auto& [agent, service] : state.services) {
    text += Format("service %s of process %d\n", Quote(service.name).c_str(), agent);
  }
  text += Format("%llu message(s), %llu violation(s), %llu remark(s), %zu command(s) waiting\n",
                 static_cast<unsigned long long>(state.messages), static_cast<unsigned long long>(state.violations),
                 static_cast<unsigned long long>(state.remarks), commands_waiting);
  return text;
}

}  // namespace qel::host
