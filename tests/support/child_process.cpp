#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "support/wait_until.h"

namespace qel::test {
namespace {

// The command to execute. It starts with env(1) if the program gets a changed environment.
std::vector<std::string> CommandOf(const ChildOptions& options) {
  std::vector<std::string> command;
  for (const auto& [name, value] : options.environment) {
    command.insert(value ? command.end() : command.begin(), value ? name + "=" + *value : "--unset=" + name);
  }
  if (!command.empty()) {
    command.insert(command.begin(), "env");
  }
  command.insert(command.end(), options.arguments.begin(), options.arguments.end());
  return command;
}

// Runs in the child. Another thread may have held a lock at the fork, so only system calls are safe.
[[noreturn]] void Execute(char* const* command, const std::array<int, 2>& sources, int error_pipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);        // test programs may ignore this signal
  dup2(sources[0], STDIN_FILENO);  // does nothing for -1
  dup2(sources[1], STDOUT_FILENO);
  execvp(command[0], command);
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(error_pipe, &error, sizeof error);
  _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const ChildOptions& options) {
  std::vector<std::string> command = CommandOf(options);
  std::vector<char*> pointers;
  for (std::string& word : command) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  std::array<int, 2> error_pipe{};
  if (pipe2(error_pipe.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  pid_ = fork();
  if (pid_ == 0) {
    Execute(pointers.data(), {options.standard_input, options.standard_output}, error_pipe[1]);
  }
  int error = errno;
  close(error_pipe[1]);
  const bool failed = pid_ < 0 || read(error_pipe[0], &error, sizeof error) > 0;  // execve() closes the write end
  close(error_pipe[0]);
  if (failed) {
    throw std::system_error(error, std::generic_category(), "starting " + command[0]);
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

std::string StartServer(std::unique_ptr<ChildProcess>& server, ChildOptions options) {
  constexpr int kTimeoutMs = 60'000;
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  const char* const shell[] = {"sh", "-c", "exec \"$@\" 3>&1 >/dev/null 2>&1", "sh"};
  options.arguments.insert(options.arguments.begin(), std::begin(shell), std::end(shell));
  options.standard_output = pipe[1];
  server = std::make_unique<ChildProcess>(options);
  close(pipe[1]);
  std::string line;
  pollfd readable{pipe[0], POLLIN, 0};
  char character = 0;
  while (poll(&readable, 1, kTimeoutMs) > 0 && read(pipe[0], &character, 1) == 1 && character != '\n') {
    line += character;
  }
  close(pipe[0]);
  if (character != '\n') {
    throw std::runtime_error(options.arguments[std::size(shell)] + " does not start");
  }
  return line;
}

}  // namespace qel::test
