#include "support/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "support/wait_until.h"

namespace qel::test {
namespace {

std::vector<std::string> MergedEnvironment(const ChildOptions& options) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const bool changed = std::ranges::any_of(options.environment,
                                             [&](const auto& change) { return text.starts_with(change.first + "="); });
    if (!changed) {
      merged.push_back(text);
    }
  }
  for (const auto& [name, value] : options.environment) {
    if (value) {
      merged.push_back(name + "=" + *value);
    }
  }
  return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// In the child, where other threads may have held any lock: system calls only.
[[noreturn]] void Execute(const ChildOptions& options, char* const* arguments, char* const* environment, pid_t parent,
                          int error_pipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(127);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);  // a test program may ignore it
  // Above the standard descriptors first, so that no dup2() overwrites the source of the next.
  std::array<int, 3> sources{options.standard_input, options.standard_output, options.standard_error};
  for (int& source : sources) {
    source = source < 0 ? source : fcntl(source, F_DUPFD_CLOEXEC, 3);
  }
  for (int target = 0; target < 3; ++target) {
    if (sources[static_cast<std::size_t>(target)] >= 0) {
      dup2(sources[static_cast<std::size_t>(target)], target);
    }
  }
  for (const int descriptor : options.inherited) {
    fcntl(descriptor, F_SETFD, 0);
  }
  execvpe(arguments[0], arguments, environment);
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(error_pipe, &error, sizeof error);
  _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const ChildOptions& options) {
  std::vector<std::string> arguments = options.arguments;
  std::vector<std::string> environment = MergedEnvironment(options);
  const std::vector<char*> argument_pointers = Pointers(arguments);
  const std::vector<char*> environment_pointers = Pointers(environment);
  std::array<int, 2> error_pipe{};
  if (pipe2(error_pipe.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    Execute(options, argument_pointers.data(), environment_pointers.data(), parent, error_pipe[1]);
  }
  const int fork_error = errno;
  close(error_pipe[1]);
  int error = 0;
  const bool failed = pid_ < 0 || read(error_pipe[0], &error, sizeof error) == sizeof error;
  close(error_pipe[0]);
  if (failed) {
    if (pid_ > 0) {
      waitpid(pid_, nullptr, 0);
    }
    throw std::system_error(pid_ < 0 ? fork_error : error, std::generic_category(), "starting " + arguments[0]);
  }
}

ChildProcess::~ChildProcess() {
  if (!ended_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void ChildProcess::Kill(int signal_number) const {
  if (!ended_) {
    kill(pid_, signal_number);
  }
}

std::optional<ChildStatus> ChildProcess::Wait(std::chrono::milliseconds timeout) {
  WaitUntil(
      [this] {
        int status = 0;
        if (!ended_ && waitpid(pid_, &status, WNOHANG) == pid_) {
          ended_ = WIFEXITED(status) ? ChildStatus{WEXITSTATUS(status), 0} : ChildStatus{{}, WTERMSIG(status)};
        }
        return ended_.has_value();
      },
      timeout);
  return ended_;
}

}  // namespace qel::test
