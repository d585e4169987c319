// The device file of the Tools Gate, and the process-wide handle through which guest commands travel.
#pragma once

#include <cstdint>

#include "tools_gate/request.h"

namespace qel {

inline constexpr const char* kTgDevicePath = "/proc/driver/qel_tg";

// Opens the device file write-only. When that fails and the process runs as root, loads the kernel module and tries
// once more. On kTgSubmitSuccess the caller owns `descriptor`; on kTgSubmitNoDevice (no such file) and kTgSubmitFailure
// it is not touched.
std::uint32_t TgOpenDeviceFile(int& descriptor);

// The process-wide handle. The Tools Service opens and closes it on the main thread; both return success (also when
// there is nothing to do) and log what they did.
bool TgDeviceHandleOpen();
bool TgDeviceHandleClose();
bool TgDeviceHandleIsOpen();

// TgSubmit() through the handle. True when the host has processed the request (its answer is in `status`); false when
// TgSubmit() failed or the handle is not open. Any thread may call it.
bool TgDeviceHandleSubmit(TgRequest& request);

}  // namespace qel
