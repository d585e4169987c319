#include "tools_service/console_semaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstring>

#include "log/log.h"

namespace qel {
namespace {

constexpr int kAccess = 0666;  // the agents of all users share the semaphore

// The routine and the line number that the log messages contain.
constexpr const char* kOpen = "QelSemOpen";
constexpr const char* kTryWait = "QelSemTryWait";
constexpr const char* kPost = "QelSemPost";
constexpr int kLineCreateFailed = 83;
constexpr int kLineOpenFailed = 92;
constexpr int kLineOpened = 97;
constexpr int kLineCreated = 101;
constexpr int kLineTryWaitFailed = 139;
constexpr int kLinePostFailed = 154;

void WarnOpenFailed(int line, int error) {
  LogWarning(kModuleService, "Warning: %s:%d semget() failed. %s (errno = %d)", kOpen, line, std::strerror(error),
             error);
}

void ReportOperationFailed(const char* routine, int line, int error) {
  LogError(kModuleService, "Error: %s:%d semop() failed. %s (errno = %d)", routine, line, std::strerror(error), error);
}

}  // namespace

bool ConsoleSemaphore::Open(key_t key) {
  id_ = semget(key, 1, IPC_CREAT | IPC_EXCL | kAccess);
  if (id_ >= 0) {
    LogInfo(kModuleService, "%s:%d semget() Created sem=%d, key=%d", kOpen, kLineCreated, id_, key);
    return true;
  }
  if (errno != EEXIST) {
    WarnOpenFailed(kLineCreateFailed, errno);
    return false;
  }
  id_ = semget(key, 1, kAccess);
  if (id_ >= 0) {
    LogInfo(kModuleService, "%s:%d semget() Opened sem=%d, key=%d", kOpen, kLineOpened, id_, key);
    return true;
  }
  if (errno != ENOENT) {  // ENOENT: another process has removed it since the first call
    WarnOpenFailed(kLineOpenFailed, errno);
  }
  return false;
}

bool ConsoleSemaphore::TryWait() const {
  sembuf operations[] = {{0, 0, IPC_NOWAIT}, {0, 1, SEM_UNDO}};  // atomically: fail unless 0, then add 1
  if (semop(id_, operations, 2) == 0) {
    return true;
  }
  const int error = errno;
  if (error != EAGAIN) {
    ReportOperationFailed(kTryWait, kLineTryWaitFailed, error);
  }
  errno = error;
  return false;
}

bool ConsoleSemaphore::Post() const {
  sembuf operation{0, -1, IPC_NOWAIT | SEM_UNDO};
  if (semop(id_, &operation, 1) == 0) {
    return true;
  }
  ReportOperationFailed(kPost, kLinePostFailed, errno);
  return false;
}

}  // namespace qel
