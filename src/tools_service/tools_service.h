// The interface of the Tools Service for the rest of the program: one current control object, and functions that use
// it. Without a current object they do nothing and return false, 0 or null. The main thread calls them, unless stated
// otherwise.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "tools_service/service_types.h"

namespace qel {

// Initialises the control for the connection type (kConnectionX11 or kConnectionWayland) and makes it current. Returns
// false, with the reason logged, on failure. The other parameters: see QelBaseServiceControl::Init().
bool ToolsServiceInit(key_t key, std::int32_t type, bool own_user_session);
bool ToolsServiceDeinit();

// Adds a service before ToolsServiceRun(). The caller owns the descriptor, which must outlive the run.
bool ToolsServiceAddService(ServiceDescriptor* descriptor);

// Runs the worker with a poll period in milliseconds. Returns when the worker has ended, or when it does not end after
// a stop request.
void ToolsServiceRun(std::uint32_t period_ms);

// Returns true when ToolsServiceRun() has returned but the worker has not ended after a stop request, because it hangs
// in a call. Then this function releases the console, and the process must end without destroying anything that the
// worker uses.
bool ToolsServiceLeaveStuckWorker();

// Asks the worker to end. Any thread and any signal handler may call it.
void ToolsServiceStop();

// Whether the worker runs and no stop was requested. Any thread may call it.
bool ToolsServiceIsRunning();
// The poll period in milliseconds. Any thread may call it.
std::uint32_t ToolsServiceGetPollPeriod();

// The wake-up pipe of a service: ToolsServiceWakeUp() makes the service's poll due at once. ToolsServiceAddPipe() may
// be called before the run or in a callback of a service. Any thread may call ToolsServiceWakeUp(), until
// ToolsServiceDeinit(); it returns false on failure.
ServicePipe* ToolsServiceAddPipe(ServiceDescriptor* descriptor);
bool ToolsServiceWakeUp(const ServicePipe* pipe);

}  // namespace qel
