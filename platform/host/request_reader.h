// Requests in the memory of the process that sends them.
#pragma once

#include <optional>
#include <string>

#include "host/gate_request.h"

namespace qel::host {

// Why a request could not be read or answered: `error` is the errno value that the sender's write fails with.
struct RequestProblem {
  int error = 0;
  std::string text;
};

// Copies the request at `address` of the thread's memory: header, inline data, buffer descriptors and buffers. Nothing
// is believed: counts and sizes are bounded before anything is allocated. std::nullopt and a problem where that fails.
std::optional<GateRequest> ReadRequest(pid_t thread, std::uint32_t address, RequestProblem& problem);

// Writes an answer back into the sender's memory: buffers and inline data first, the status last. False and a problem
// where the memory is not there (any more).
bool WriteAnswer(const GateRequest& request, const GateAnswer& answer, RequestProblem& problem);

}  // namespace qel::host
