// The device file of the Tools Gate, and the process-wide handle for guest commands.
#pragma once

#include <cstdint>

#include "tools_gate/request.h"

namespace qel {

inline constexpr const char* kTgDevicePath = "/proc/driver/qel_tg";

// Opens the device file write-only. When that fails and the process runs as root, loads the kernel module and tries
// once more. Returns kTgSubmitSuccess, and the caller owns `descriptor`; or kTgSubmitNoDevice (no such file) or
// kTgSubmitFailure, and `descriptor` is unchanged.
std::uint32_t TgOpenDeviceFile(int& descriptor);

// The process-wide handle. The Tools Service opens and closes it on the main thread. Both functions return true on
// success, also when there was nothing to do, and log the result.
bool TgDeviceHandleOpen();
bool TgDeviceHandleClose();
bool TgDeviceHandleIsOpen();

// Calls TgSubmit() with the handle. Returns true when the host has processed the request (its answer is in `status`),
// false when TgSubmit() failed or the handle is not open. Any thread may call it.
bool TgDeviceHandleSubmit(TgRequest& request);

}  // namespace qel
