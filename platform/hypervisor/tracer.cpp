#include "hypervisor/tracer.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/unique_fd.h"

namespace qel::hypervisor {
namespace {

constexpr int kCannotStart = 127;
constexpr int kSignalBase = 128;

// The call instruction. After an answered call the program counter is increased by its length.
constexpr std::array<unsigned char, 2> kCallInstruction{0x0F, 0x33};  // rdpmc

std::atomic<pid_t> g_command{-1};

void PassOn(int signal_number) {
  const int saved_errno = errno;
  if (const pid_t command = g_command; command > 0) {
    kill(command, signal_number);
  }
  errno = saved_errno;
}

// The memory of another process. Hypervisor calls use 32-bit addresses.
class ProcessMemory : public GuestMemory {
 public:
  explicit ProcessMemory(pid_t pid) : pid_(pid) {}

  bool Read(std::uint32_t address, std::span<std::byte> to) override { return ReadAt(address, to); }

  bool Write(std::uint32_t address, std::span<const std::byte> from) override {
    const iovec local{.iov_base = const_cast<std::byte*>(from.data()), .iov_len = from.size()};
    const iovec remote = Remote(address, from.size());
    return from.empty() || process_vm_writev(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(from.size());
  }

  bool ReadAt(std::uint64_t address, std::span<std::byte> to) const {
    const iovec local{.iov_base = to.data(), .iov_len = to.size()};
    const iovec remote = Remote(address, to.size());
    return to.empty() || process_vm_readv(pid_, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(to.size());
  }

 private:
  static iovec Remote(std::uint64_t address, std::size_t size) {
    // An address of the other process. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return {.iov_base = reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), .iov_len = size};
  }

  pid_t pid_;
};

std::uint32_t Low(unsigned long long value) {
  return static_cast<std::uint32_t>(value);
}

// If the fault of a thread is a hypervisor call, answers it and moves the thread to the next instruction. Returns
// whether it was answered.
bool AnswerFault(pid_t thread, CallChannel& channel) {
  user_regs_struct registers{};
  if (ptrace(PTRACE_GETREGS, thread, nullptr, &registers) != 0) {
    return false;
  }
  ProcessMemory memory(thread);
  std::array<unsigned char, kCallInstruction.size()> instruction{};
  if (!memory.ReadAt(registers.rip, std::as_writable_bytes(std::span(instruction))) ||
      instruction != kCallInstruction) {
    return false;
  }
  Registers call{.eax = Low(registers.rax),
                 .ebx = Low(registers.rbx),
                 .ecx = Low(registers.rcx),
                 .edx = Low(registers.rdx),
                 .esi = Low(registers.rsi),
                 .edi = Low(registers.rdi)};
  if (!channel.Answer(call, memory)) {
    return false;
  }
  registers.rax = call.eax;
  registers.rbx = call.ebx;
  registers.rcx = call.ecx;
  registers.rdx = call.edx;
  registers.rsi = call.esi;
  registers.rdi = call.edi;
  registers.rip += kCallInstruction.size();
  return ptrace(PTRACE_SETREGS, thread, nullptr, &registers) == 0;
}

bool IsStopSignal(int signal_number) {
  return signal_number == SIGSTOP || signal_number == SIGTSTP || signal_number == SIGTTIN || signal_number == SIGTTOU;
}

// Continues a stopped thread. Errors are ignored, because the thread may have been killed meanwhile.
void Resume(pid_t thread, int wait_status, CallChannel& channel) {
  const int signal_number = WSTOPSIG(wait_status);
  const int event = wait_status >> 16;
  if (event == PTRACE_EVENT_STOP && IsStopSignal(signal_number)) {
    ptrace(PTRACE_LISTEN, thread, nullptr, nullptr);  // stopped by job control: it stays stopped until SIGCONT
    return;
  }
  const bool is_fault = signal_number == SIGSEGV || signal_number == SIGILL;
  const bool swallow = event != 0 || (is_fault && AnswerFault(thread, channel));
  ptrace(PTRACE_CONT, thread, nullptr, static_cast<std::uintptr_t>(swallow ? 0 : signal_number));
}

// Runs in the child: waits until the parent traces it, then executes the command.
[[noreturn]] void BecomeCommand(int start_pipe, std::vector<char*>& arguments) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // without the parent its calls would not be answered
  char go = 0;
  if (read(start_pipe, &go, 1) == 1) {
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "hypervisor-run: cannot run %s: %s\n", arguments[0], std::strerror(errno));
  }
  _exit(kCannotStart);
}

int Follow(pid_t command, CallChannel& channel) {
  for (;;) {
    int status = 0;
    const pid_t thread = waitpid(-1, &status, __WALL);
    if (thread < 0) {
      if (errno == EINTR) {
        continue;
      }
      return kCannotStart;
    }
    if (WIFSTOPPED(status)) {
      Resume(thread, status, channel);
    } else if (thread == command) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status);
    }
  }
}

}  // namespace

int RunTraced(const std::vector<std::string>& command, CallChannel& channel) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);

  std::array<int, 2> start_pipe{};
  if (pipe2(start_pipe.data(), O_CLOEXEC) != 0) {
    std::perror("hypervisor-run: pipe");
    return kCannotStart;
  }
  UniqueFd wait_for_go(start_pipe[0]);
  UniqueFd give_go(start_pipe[1]);
  const pid_t child = fork();
  if (child == 0) {
    give_go.Reset();
    BecomeCommand(wait_for_go.Get(), arguments);
  }
  wait_for_go.Reset();
  if (child < 0) {
    std::perror("hypervisor-run: fork");
    return kCannotStart;
  }
  g_command = child;
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction action {};
    action.sa_handler = PassOn;
    sigemptyset(&action.sa_mask);
    sigaction(signal_number, &action, nullptr);
  }

  constexpr std::uintptr_t kFollowAll = PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;
  const bool followed = ptrace(PTRACE_SEIZE, child, nullptr, kFollowAll) == 0;
  if (!followed) {
    std::perror("hypervisor-run: ptrace");  // the child ends when the pipe is closed
  }
  const char go = 1;
  const bool started = followed && write(give_go.Get(), &go, 1) == 1;
  give_go.Reset();
  if (!started) {
    waitpid(child, nullptr, 0);
    return kCannotStart;
  }
  return Follow(child, channel);
}

}  // namespace qel::hypervisor
