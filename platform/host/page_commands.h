// The requests that the page sends.
#pragma once

#include <optional>
#include <string>

#include "host/host_commands.h"
#include "host/model.h"

namespace qel::host {

// The command for a request, a JSON object with the member "do":
//   {"do": "start", "path": DESKTOP_FILE, "documents": [PATH...]}
//   {"do": "activate", "window": ID}, {"do": "activate", "pid": PID}, {"do": "hide", "pid": PID}
//   {"do": "quit", "pid": PID, "force": true|false}
//   {"do": "reset"}
// The page can name only what it shows: entries of the menu, known applications and windows. Returns std::nullopt for
// anything else, and the reason in `problem`.
std::optional<HostCommand> CommandForPage(const std::string& request, const Model& model, std::string& problem);

}  // namespace qel::host
