// Calls callbacks of a service and catches their exceptions.
#pragma once

#include <exception>

#include "log/log.h"
#include "tools_service/service_types.h"

namespace qel {

// Calls `callback` and returns its result. When it throws a std::exception, logs an error with `what` and returns
// false. A pthread_exit() inside of the callback is not stopped.
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
