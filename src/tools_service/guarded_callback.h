// Calls of a service's callbacks, from which no exception gets out.
#pragma once

#include <exception>

#include "log/log.h"
#include "tools_service/service_types.h"

namespace qel {

// Calls `callback` and returns its result; false, with a line in the log, when it throws. The end of the thread by
// pthread_exit() passes through.
template <typename Callback>
bool Guarded(const ServiceDescriptor& service, const char* what, Callback callback) {
  try {
    return callback();
  } catch (const std::exception& error) {
    LogError(kModuleService, "Error: Tools Service: %s of service %s failed: %s", what, service.name, error.what());
    return false;
  }
}

}  // namespace qel
