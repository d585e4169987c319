// Messages and the model as JSON, each on one line without a newline. Icons are represented by their sizes.
#pragma once

#include <string>

#include "host/model.h"

namespace qel::host {

std::string EventToJson(const Event& event);
std::string ApplicationsToJson(const ModelState& state);
std::string MenuToJson(const AppMenu& menu);
std::string StatusToJson(const ModelState& state, std::size_t commands_waiting);

}  // namespace qel::host
