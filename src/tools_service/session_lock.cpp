#include "tools_service/session_lock.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "log/log.h"

namespace qel {
namespace {

constexpr mode_t kLockFileMode = 0660;

// Locks or unlocks the whole file without waiting. Returns false, with errno set, on failure.
bool SetLock(const FileDescriptor& file, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(file.Get(), F_SETLK, &lock) == 0;
}

}  // namespace

bool SessionLock::Acquire(const std::string& display_name) {
  if (file_.IsOpen()) {
    LogWarning(kModuleService, "Warning: Tools Service: user session lock file already created");
    return true;
  }
  TryLock(display_name);
  if (!file_.IsOpen()) {
    LogError(kModuleService, "Error: Tools Service: can't acquire user session lock");
    return false;
  }
  return true;
}

void SessionLock::TryLock(const std::string& display_name) {
  const char* directory = std::getenv("XDG_RUNTIME_DIR");
  if (directory == nullptr) {
    LogWarning(kModuleService, "Warning: Tools Service: XDG_RUNTIME_DIR not set in the environment");
    return;
  }
  const std::string path = std::string(directory) + "/Corvessan.ControlCenter.UserSession.{" + display_name + "}.lock";
  FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kLockFileMode));
  if (!file.IsOpen()) {
    LogWarning(kModuleService, "Warning: Tools Service: can't open lock file '%s' (error=%s)", path.c_str(),
               std::strerror(errno));
    return;
  }
  if (!SetLock(file, F_WRLCK)) {
    const int error = errno;
    LogError(kModuleService, "Error: Tools Service: can't set file lock. %s (errno=%d)\n", std::strerror(error), error);
    return;
  }
  file_ = std::move(file);
  LogInfo(kModuleService, "Tools Service: user session locked '%s'", path.c_str());
}

void SessionLock::Release() {
  if (!file_.IsOpen()) {
    return;
  }
  SetLock(file_, F_UNLCK);
  file_.Close();
  LogInfo(kModuleService, "Tools Service: user session unlocked");
}

}  // namespace qel
