#include "host/page_opener.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

namespace qel::host {
namespace {

bool HasDesktop() {
  const auto has = [](const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0';
  };
  return geteuid() != 0 && (has("DISPLAY") || has("WAYLAND_DISPLAY"));
}

std::string ReadAll(int descriptor) {
  std::string text;
  char buffer[512];
  for (ssize_t got = 0; (got = read(descriptor, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
    if (text.ends_with('\n')) break;
  }
  return text;
}

// Other users can read the arguments of programs, so the address is passed in a file that only its owner can read.
std::string FileWith(const std::string& url) {
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  std::string path = std::string(folder != nullptr && *folder == '/' ? folder : "/tmp") + "/tdlhost-XXXXXX.html";
  const UniqueFd file(mkostemps(path.data(), 5, O_CLOEXEC));
  const std::string text = "<!DOCTYPE html><meta http-equiv=\"refresh\" content=\"0; url=" + url + "\"><a href=\"" +
                           url + "\">The page</a>\n";
  if (!file || write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
  return path;
}

// The process that waits. It ends when the descriptor is closed, that is, with tdlhost.
[[noreturn]] void Run(int descriptor) {
  // A signal of the terminal ends tdlhost, and this process after it, when the file is removed.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
  std::string url = ReadAll(descriptor);
  if (url.empty()) _exit(0);
  url.pop_back();
  const std::string path = FileWith(url);
  char program[] = "xdg-open";
  char* arguments[] = {program, const_cast<char*>(path.c_str()), nullptr};
  pid_t pid = -1;
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  // The browser may live longer: it does not end with Ctrl-C at this terminal, and does not keep the output open, whose
  // end a reader waits for.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, standard, "/dev/null", O_RDWR, 0);
  }
  if (!path.empty()) posix_spawnp(&pid, program, &actions, &attributes, arguments, environ);
  ReadAll(descriptor);
  unlink(path.c_str());
  _exit(0);
}

}  // namespace

PageOpener::PageOpener() {
  int ends[2];
  if (!HasDesktop() || pipe2(ends, O_CLOEXEC) != 0) return;
  address_ = UniqueFd(ends[1]);
  const UniqueFd reading(ends[0]);
  if (fork() == 0) {
    address_.Reset();
    Run(reading.Get());
  }
}

void PageOpener::Open(const std::string& url) {
  const std::string line = url + "\n";
  if (address_ && write(address_.Get(), line.data(), line.size()) < 0) std::perror("tdlhost: opening the page");
}

}  // namespace qel::host
