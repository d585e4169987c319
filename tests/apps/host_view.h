// The agent's requests as the host decodes them.
#pragma once

#include "host/decoder.h"
#include "tools_gate/request.h"

namespace qel::test {

inline host::Notification HostView(const TgRequest& request) {
  host::GateRequest copy;
  copy.code = request.code;
  for (const TgBuffer& buffer : request.buffers) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(buffer.data);
    copy.buffers.push_back({.size = buffer.size, .data = {bytes, bytes + buffer.size}});
  }
  return host::Decode(copy).notification;
}

}  // namespace qel::test
