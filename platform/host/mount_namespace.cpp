#include "host/mount_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/unique_fd.h"
#include "host/bytes.h"

namespace qel::host {
namespace {

bool WriteFile(const char* path, const std::string& text, std::string& error) {
  const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
  if (file && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) return true;
  error = Format("cannot write %s: %s", path, std::strerror(errno));
  return false;
}

bool UnshareAsUser(std::string& error) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    error = Format("cannot make a user namespace: %s (run as root, or allow unprivileged user namespaces)",
                   std::strerror(errno));
    return false;
  }
  // Without root rights, a process must disable setgroups() before it may map its group.
  return WriteFile("/proc/self/setgroups", "deny", error) &&
         WriteFile("/proc/self/uid_map", Format("%u %u 1", user, user), error) &&
         WriteFile("/proc/self/gid_map", Format("%u %u 1", group, group), error);
}

}  // namespace

bool EnterPrivateMountNamespace(std::string& error) {
  if (unshare(CLONE_NEWNS) != 0) {
    if (errno != EPERM) {
      error = Format("cannot make a mount namespace: %s", std::strerror(errno));
      return false;
    }
    if (!UnshareAsUser(error)) return false;
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    error = Format("cannot make the mounts private: %s", std::strerror(errno));
    return false;
  }
  return true;
}

}  // namespace qel::host
