// Messages and the model as readable text.
#pragma once

#include <string>

#include "host/model.h"

namespace qel::host {

// One line without a newline: number, time, sender, the message with all fields, violations and remarks.
std::string RenderEvent(const Event& event);
// Several lines, each with a newline.
std::string RenderApplications(const ModelState& state);
std::string RenderWindows(const ModelState& state);
std::string RenderMenu(const AppMenu& menu);
std::string RenderStatus(const ModelState& state, std::size_t commands_waiting);
// "64x64 argb, 16384 bytes" or "none".
std::string RenderIcon(const Icon& icon);
// The text in double quotes. Control characters and bytes that are not UTF-8 are escaped, so it is always one line.
std::string Quote(const std::string& text);

}  // namespace qel::host
