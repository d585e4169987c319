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

// Session managers use the variable to recognise the program they started themselves, which is the agent.
constexpr std::string_view kAutostartVariable = "DESKTOP_AUTOSTART_ID=";

constexpr int kFirstPrivateDescriptor = 3;

// Everything the child needs, made before the fork: the other threads may hold the allocator's lock at that moment,
// and the child would wait for it for ever. Points into the strings it was made from.
struct Program {
  std::vector<char*> arguments;    // null-terminated
  std::vector<char*> environment;  // null-terminated
  bool is_desktop_entry = false;  // named by its path
  int descriptor_limit = 0;
};

Program Prepare(const std::vector<std::string>& args) {
  Program program;
  for (const std::string& argument : args) {
    program.arguments.push_back(const_cast<char*>(argument.c_str()));  // exec does not change what it is given
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

// From here on down to ExecuteInChild(): async-signal-safe calls only.

void ResetSignals() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    sigaction(number, &standard, nullptr);  // refused for those that always are at their default
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Marks instead of closing: the log has to stay open until the program runs.
void HideDescriptors(int descriptor_limit) {
  if (close_range(kFirstPrivateDescriptor, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
    return;
  }
  for (int descriptor = kFirstPrivateDescriptor; descriptor < descriptor_limit; ++descriptor) {
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  }
}

// Returns when nothing could be executed.
void Execute(const Program& program) {
  if (program.is_desktop_entry) {
    // execvpe() would let the shell run a file without a format.
    execve(program.arguments[0], program.arguments.data(), program.environment.data());
    return;
  }
  // Not among the functions that are promised to be safe here. The C library's takes no lock and allocates nothing: it
  // reads PATH from this process's environment and puts paths and arguments together on the stack.
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

// Blocks every signal of the calling thread: until the child has put the signals to their defaults, the agent's
// handlers would run in it.
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

  // fork() rather than vfork(): that one would hold this thread, and with it the lock, until the program has been found
  // and loaded, from a stalled network directory perhaps, and the worker thread waits for the lock when a window
  // appears.
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
