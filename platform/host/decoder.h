// Strict decoding of what an agent sends. Written from the message formats alone and sharing nothing with the agent, so
// that it can judge it.
#pragma once

#include "host/gate_request.h"
#include "host/notifications.h"

namespace qel::host {

struct Decoded {
  Notification notification = Unknown{};
  // Each says what the message format does not allow, and where. The notification then holds what could be read.
  std::vector<std::string> violations;
};

// Decodes any request, whatever its bytes are. Safe from any thread.
Decoded Decode(const GateRequest& request);

}  // namespace qel::host
