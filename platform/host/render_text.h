// Messages and the model as text for people.
#pragma once

#include <string>

#include "host/model.h"

namespace qel::host {

// One line without its end: number, time, sender, the message with every field, then violations and remarks.
std::string RenderEvent(const Event& event);
// Several lines, each with its end.
std::string RenderApplications(const ModelState& state);
std::string RenderWindows(const ModelState& state);
std::string RenderMenu(const AppMenu& menu);
std::string RenderStatus(const ModelState& state, std::size_t commands_waiting);
// "64x64 argb, 16384 bytes" or "none".
std::string RenderIcon(const Icon& icon);
// In double quotes; control characters and bytes that are not UTF-8 are escaped, so that a line stays one.
std::string Quote(const std::string& text);

}  // namespace qel::host
