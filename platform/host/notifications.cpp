#include "host/notifications.h"

namespace qel::host {
namespace {

struct KindRow {
  const char* name;
  const char* code;
};

// In the order of MessageKind.
constexpr std::array<KindRow, kMessageKinds> kKinds = {{
    {"probe", ""},
    {"register", ""},
    {"unregister", ""},
    {"tool-state", "100"},
    {"add-run", "104"},
    {"rmv-run", "105"},
    {"hidden-windows", "108"},
    {"window-title", "112"},
    {"finish-enum", "113"},
    {"rmv-run-by-path", "114"},
    {"app-menu", "125"},
    {"update-app-icon", "137"},
    {"fetch", "0"},
    {"unknown", ""},
}};

}  // namespace

const char* KindName(MessageKind kind) {
  return kKinds[static_cast<std::size_t>(kind)].name;
}

std::optional<MessageKind> KindFromName(const std::string& name) {
  if (name == "101") return MessageKind::kToolState;
  for (std::size_t i = 0; i < kKinds.size(); ++i) {
    if (!name.empty() && (name == kKinds[i].name || name == kKinds[i].code)) return static_cast<MessageKind>(i);
  }
  return std::nullopt;
}

const char* LayoutName(ServiceLayout layout) {
  switch (layout) {
    case ServiceLayout::kBuffers:
      return "buffers";
    case ServiceLayout::kInlineHead:
      return "inline-head";
    case ServiceLayout::kInline:
      return "inline";
  }
  return "";
}

}  // namespace qel::host
