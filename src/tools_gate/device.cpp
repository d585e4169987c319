#include "tools_gate/device.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "log/log.h"

namespace qel {
namespace {

std::atomic<int> g_device_handle{-1};

int OpenDevice() {
  return open(kTgDevicePath, O_WRONLY | O_CLOEXEC);
}

bool LoadKernelModule() {
  const int status = std::system("/sbin/modprobe qel_tg");
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::uint32_t TgOpenDeviceFile(int& descriptor) {
  int opened = OpenDevice();
  int reason = errno;
  if (opened < 0 && geteuid() == 0 && LoadKernelModule()) {
    opened = OpenDevice();
    reason = errno;
  }
  if (opened < 0) {
    return reason == ENOENT ? kTgSubmitNoDevice : kTgSubmitFailure;
  }
  descriptor = opened;
  return kTgSubmitSuccess;
}

bool TgDeviceHandleOpen() {
  if (TgDeviceHandleIsOpen()) {
    return true;
  }
  int descriptor = -1;
  if (TgOpenDeviceFile(descriptor) != kTgSubmitSuccess) {
    LogError(kModuleLoader, "Error: Can't open %s", kTgDevicePath);
    return false;
  }
  g_device_handle = descriptor;
  LogInfo(kModuleLoader, "Opened %s", kTgDevicePath);
  return true;
}

bool TgDeviceHandleClose() {
  const int descriptor = g_device_handle.exchange(-1);
  if (descriptor < 0) {
    return true;
  }
  if (close(descriptor) != 0) {
    LogError(kModuleLoader, "Error: Can't close %s", kTgDevicePath);
    return false;
  }
  LogInfo(kModuleLoader, "Closed %s", kTgDevicePath);
  return true;
}

bool TgDeviceHandleIsOpen() {
  return g_device_handle >= 0;
}

bool TgDeviceHandleSubmit(TgRequest& request) {
  const int descriptor = g_device_handle;
  if (descriptor < 0) {
    return false;
  }
  return TgSubmit(descriptor, request) == kTgSubmitSuccess;
}

}  // namespace qel
