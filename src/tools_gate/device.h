// The device file of the Tools Gate, and the process-wide handle through which guest commands travel.
#pragma once

#include <cstdint>

#include "tools_gate/request.h"

namespace qel {

inline constexpr const char* kTgDevicePath = "/proc/driver/qel_tg";

// Opens the device file write-only. When that fails and the process runs as root, loads the kernel module and tries
// once more. Returns kTgSubmitSuccess and the descriptor, or kTgSubmitNoDevice (no such file) or kTgSubmitFailure.
std::uint32_t TgOpenDeviceFile(int& descriptor);

// The process-wide handle. Opened and closed by the Tools Service on the main thread; the submission may be called from
// several threads at a time.
bool TgDeviceHandleOpen();
bool TgDeviceHandleClose();
bool TgDeviceHandleIsOpen();

// TgSubmit() through the handle. Returns true when the request was submitted (look at its status then: it may have been
// given up); false when the handle is not open or the write failed.
bool TgDeviceHandleSubmit(TgRequest& request);

}  // namespace qel
