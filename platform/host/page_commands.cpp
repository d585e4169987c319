#include "host/page_commands.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace qel::host {
namespace {

using Json = nlohmann::json;

// Thrown for a request that is wrong; caught in CommandForPage().
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::uint32_t Number(const Json& request, const char* name) {
  const auto value = request.find(name);
  if (value == request.end() || !value->is_number_unsigned() || value->get<std::uint64_t>() > UINT32_MAX) {
    throw BadRequest(Format("'%s' is not a number", name));
  }
  return value->get<std::uint32_t>();
}

std::string Text(const Json& value) {
  if (!value.is_string()) throw BadRequest("a path is not a text");
  auto text = value.get<std::string>();
  if (text.find('\0') != std::string::npos) throw BadRequest("a path holds a zero character");
  return text;
}

HostCommand Start(const Json& request, const Model& model) {
  const std::string path = Text(request.value("path", Json()));
  bool known = false;
  model.Read([&](const ModelState& state) {
    known = state.menu && std::ranges::any_of(state.menu->entries, [&](const auto& e) { return e.path == path; });
  });
  if (!known) throw BadRequest("the menu has no such entry now");
  std::vector<std::string> documents;
  for (const Json& document : request.value("documents", Json::array())) documents.push_back(Text(document));
  return StartCommand(StartLayout::kFields, path, documents).value();
}

std::uint32_t KnownPid(const Json& request, const Model& model) {
  const std::uint32_t pid = Number(request, "pid");
  bool known = false;
  model.Read([&](const ModelState& state) { known = state.applications.contains(pid); });
  // The agent sends a signal to any process that it is told.
  if (!known) throw BadRequest("the application has ended");
  return pid;
}

HostCommand Activate(const Json& request, const Model& model) {
  if (!request.contains("window")) return ActivateOneAppCommand(KnownPid(request, model));
  const std::uint32_t window = Number(request, "window");
  bool known = false;
  model.Read([&](const ModelState& state) { known = state.FindWindow(window) != nullptr; });
  if (!known) throw BadRequest("the window is gone");
  return ActivateWindowCommand(window);
}

HostCommand Convert(const Json& request, const Model& model) {
  if (!request.is_object()) throw BadRequest("not a JSON object");
  const Json name = request.value("do", Json());
  if (name == "start") return Start(request, model);
  if (name == "activate") return Activate(request, model);
  if (name == "hide") return HideOneCommand(KnownPid(request, model));
  if (name == "quit") {
    const Json force = request.value("force", Json(false));
    if (!force.is_boolean()) throw BadRequest("'force' is not true or false");
    return QuitCommand(KnownPid(request, model), force.get<bool>() ? Force::kYes : Force::kNo);
  }
  if (name == "reset") return ResetCommand();
  throw BadRequest("no request is called so");
}

}  // namespace

std::optional<HostCommand> CommandForPage(const std::string& request, const Model& model, std::string& problem) {
  try {
    return Convert(Json::parse(request, nullptr, false), model);
  } catch (const BadRequest& bad) {
    problem = bad.what();
    return std::nullopt;
  }
}

}  // namespace qel::host
