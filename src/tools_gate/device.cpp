#include "tools_gate/device.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "base/file_descriptor.h"
#include "log/log.h"

namespace qel {
namespace {

std::atomic<int> g_device_handle{-1};

FileDescriptor OpenDevice() {
  return FileDescriptor(open(kTgDevicePath, O_WRONLY | O_CLOEXEC));
}

bool LoadKernelModule() {
  const int status = std::system("/sbin/modprobe qel_tg");
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::uint32_t TgOpenDeviceFile(int& descriptor) {
  FileDescriptor opened = OpenDevice();
  int reason = errno;
  if (!opened.IsOpen() && geteuid() == 0 && LoadKernelModule()) {
    opened = OpenDevice();
    reason = errno;
  }
  if (!opened.IsOpen()) {
    return reason == ENOENT ? kTgSubmitNoDevice : kTgSubmitFailure;
  }
  descriptor = opened.Release();
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
  FileDescriptor handle(g_device_handle.exchange(-1));
  if (!handle.IsOpen()) {
    return true;
  }
  if (!handle.Close()) {
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
