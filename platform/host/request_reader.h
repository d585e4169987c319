// Reads requests from the memory of the sending process, and writes the answers back.
#pragma once

#include <optional>
#include <string>

#include "host/gate_request.h"

namespace qel::host {

// The reason why a request could not be read or answered. `error` is the errno value for the sender's write().
struct RequestProblem {
  int error = 0;
  std::string text;
};

// Copies the request at `address` in the thread's memory: header, inline data, buffer descriptors and buffers. Counts
// and sizes are checked before memory is allocated. Returns std::nullopt and sets `problem` on failure.
std::optional<GateRequest> ReadRequest(pid_t thread, std::uint32_t address, RequestProblem& problem);

// Writes an answer to the sender's memory: first buffers and inline data, then the status. Returns false and sets
// `problem` when the memory does not exist (any more).
bool WriteAnswer(const GateRequest& request, const GateAnswer& answer, RequestProblem& problem);

}  // namespace qel::host
