#include "apps/launcher.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <mutex>
#include <string_view>

#include "log/log.h"

namespace qel {
namespace {

// Session managers use this variable to recognise a program that they have started, which is only the agent.
constexpr std::string_view kAutostartVariable = "DESKTOP_AUTOSTART_ID=";

constexpr int kFirstPrivateDescriptor = 3;

// All data that the child needs, prepared before fork(): another thread may hold the lock of the allocator during
// fork(), and then the child would wait for it for ever. Contains pointers to the strings that were passed to
// Prepare().
struct Program {
  std::vector<char*> arguments;    // null-terminated
  std::vector<char*> environment;  // null-terminated
  bool is_desktop_entry = false;   // named by its path
  int descriptor_limit = 0;
};

Program Prepare(const std::vector<std::string>& args) {
  Program program;
  for (const std::string& argument : args) {
    program.arguments.push_back(const_cast<char*>(argument.c_str()));  // exec does not change the text
  }
  program.arguments.push_back(nullptr);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (!std::string_view(*variable).starts_with(kAutostartVariable)) {
      program.environment.push_back(*variable);
    }
  }
  program.environment.push_back(nullptr);
  const std::string_view name = program.arguments[0];
  program.is_desktop_entry = name.ends_with(kDesktopSuffix) && name.find('/') != name.npos;
  const long limit = sysconf(_SC_OPEN_MAX);
  program.descriptor_limit = limit > 0 && limit < INT_MAX ? static_cast<int>(limit) : INT_MAX;
  return program;
}

// All functions from here to ExecuteInChild() run in the child and may make only async-signal-safe calls.

void ResetSignals() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    sigaction(number, &standard, nullptr);  // fails for SIGKILL and SIGSTOP, which always have the default action
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Sets close-on-exec instead of closing, because the log must stay open until the program runs.
void HideDescriptors(int descriptor_limit) {
  if (close_range(kFirstPrivateDescriptor, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
    return;
  }
  for (int descriptor = kFirstPrivateDescriptor; descriptor < descriptor_limit; ++descriptor) {
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
}

// Returns only when the program could not be executed.
void Execute(const Program& program) {
  if (program.is_desktop_entry) {
    // execvpe() would let the shell run a file without a format.
    execve(program.arguments[0], program.arguments.data(), program.environment.data());
    return;
  }
  // POSIX does not list execvpe() as async-signal-safe. In the GNU C library it takes no lock and allocates no heap
  // memory: it reads PATH from the environment of this process and builds paths and arguments on the stack.
  execvpe(program.arguments[0], program.arguments.data(), program.environment.data());
}

[[noreturn]] void ExecuteInChild(const Program& program) {
  const SignalHandlerScope restrict_logger;
  ResetSignals();
  setpgid(0, 0);
  HideDescriptors(program.descriptor_limit);
  Execute(program);
  LogError(kModuleAgent, "Error: Failed to execute process '%s'", program.arguments[0]);
  _exit(1);
}

// Blocks all signals in the calling thread: otherwise the agent's handlers could run in the child before it has reset
// the signal actions.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

void Launcher::LaunchApplication(const std::string& app, const std::vector<std::string>& args) {
  if (args.empty()) {
    return;
  }
  LogInfo(kModuleAgent, "Executing args:");
  for (const std::string& argument : args) {
    LogInfo(kModuleAgent, " '%s'", argument.c_str());
  }
  const Program program = Prepare(args);

  // fork() instead of vfork(): vfork() would stop this thread, which holds the lock, until the program has been found
  // and loaded, perhaps from a network directory that hangs. The worker thread needs the lock when a window appears.
  const std::unique_lock held = launched_.Lock();
  pid_t child = -1;
  {
    const SignalsBlocked blocked;
    child = fork();
    if (child == 0) {
      ExecuteInChild(program);
    }
  }
  if (child < 0) {
    LogError(kModuleAgent, "Error: Failed to fork application");
    return;
  }
  launched_.Add(held, child, app);
}

}  // namespace qel
