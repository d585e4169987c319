// Strict decoding of the agent's messages. It shares no code with the agent, so that it can find errors of the agent.
#pragma once

#include "host/gate_request.h"
#include "host/notifications.h"

namespace qel::host {

struct Decoded {
  Notification notification = Unknown{};
  // Each text describes a violation of the message format and its place. Then the notification contains the parts that
  // could be read.
  std::vector<std::string> violations;
};

// Decodes a request with any content. Any thread may call it.
Decoded Decode(const GateRequest& request);

}  // namespace qel::host
