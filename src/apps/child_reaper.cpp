#include "apps/child_reaper.h"

#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "log/log.h"

namespace qel {
namespace {

// An event descriptor that counts deliveries of SIGCHLD. It is never closed: when the reaper ends, the signal handler
// may still run on another thread, and would write into the next file that gets the same number.
std::atomic<int> g_deliveries{-1};

void CountDelivery() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(g_deliveries.load(), &one, sizeof one);
}

// Waits until the count is not 0 and decrements it.
void AwaitDelivery() {
  std::uint64_t one = 0;
  while (read(g_deliveries.load(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

extern "C" void HandleChildSignal(int /*signal_number*/) {
  const int saved_errno = errno;
  CountDelivery();
  errno = saved_errno;
}

bool OpenDeliveryCount() {
  if (g_deliveries.load() < 0) {
    g_deliveries.store(eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC));
  }
  if (g_deliveries.load() < 0) {
    LogError(kModuleAgent, "Error: Failed to watch child processes: %s", std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace

void ChildReaper::Install() {
  if (!running_) {
    if (!OpenDeliveryCount()) {
      return;
    }
    if (const int error = thread_.Start("tdl.reaper", [this] { ReapThread(); }); error != 0) {
      LogError(kModuleAgent, "Error: Failed to create thread: %s", std::strerror(error));
      return;
    }
    running_ = true;
  }
  std::signal(SIGCHLD, HandleChildSignal);
}

ChildReaper::~ChildReaper() {
  if (running_) {
    std::signal(SIGCHLD, SIG_DFL);
    stopping_.store(true);
    CountDelivery();
    thread_.Join();
  }
}

void ChildReaper::ReapThread() {
  for (;;) {
    AwaitDelivery();
    if (stopping_.load()) {
      return;
    }
    try {
      OnChildExit();
    } catch (const std::exception& error) {
      LogError(kModuleAgent, "Error: Failed to tell host of an ended process: %s", error.what());
    }
  }
}

// Reaps one child per delivery; all children, when the previous delivery has left some.
void ChildReaper::OnChildExit() {
  const bool catch_up = left_behind_;
  while (ReapOne() && catch_up) {
  }
  siginfo_t next{};
  left_behind_ = waitid(P_ALL, 0, &next, WEXITED | WNOHANG | WNOWAIT) == 0 && next.si_pid != 0;
}

// Reaps one child that has ended, and tells the host if that child has shown no window. Returns false when there is no
// such child.
bool ChildReaper::ReapOne() {
  // The lock is held from before the child is reaped until its entry is removed, so that no new child can get the same
  // id in between. It is released before the message is sent, because a slow host may take seconds for it.
  std::unique_lock held = launched_.Lock();
  const pid_t pid = waitpid(-1, nullptr, WNOHANG);
  if (pid < 1) {
    return false;
  }
  const std::optional<std::string> path = launched_.Take(held, pid);
  held.unlock();
  if (path) {
    guest_commands_.GuestCmdRmvRunByPath(pid, *path);
  }
  return true;
}

}  // namespace qel
