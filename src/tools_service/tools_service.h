// The Tools Service as the rest of the program sees it: one current control object, and functions that act on it.
// Without a current object they do nothing and return false, 0 or null.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "tools_service/service_types.h"

namespace qel {

// Makes the control of the connection type (kConnectionX11 or kConnectionWayland) current and initialises it.
bool ToolsServiceInit(key_t key, std::int32_t type, bool own_user_session);
bool ToolsServiceDeinit();

// Before ToolsServiceRun(). The descriptor stays the caller's and has to outlive the run.
bool ToolsServiceAddService(ServiceDescriptor* descriptor);

// Runs the worker with a poll period in milliseconds; returns when it has ended.
void ToolsServiceRun(std::uint32_t period_ms);

// True when ToolsServiceRun() returned though the worker, which was asked to end, has not: it waits for something that
// does not come. The console is released then, and the process has to end without taking anything from the worker.
bool ToolsServiceLeaveStuckWorker();

// Asks the worker to end; from any thread or a signal handler.
void ToolsServiceStop();

bool ToolsServiceIsRunning();
std::uint32_t ToolsServiceGetPollPeriod();

// A pipe whose wake-up makes the service's poll due at once. To be asked for before the run or in a callback of a
// service; woken up from any thread, until ToolsServiceDeinit().
ServicePipe* ToolsServiceAddPipe(ServiceDescriptor* descriptor);
bool ToolsServiceWakeUp(const ServicePipe* pipe);

}  // namespace qel
