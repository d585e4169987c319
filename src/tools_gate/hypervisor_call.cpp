#include "tools_gate/hypervisor_call.h"

#include <csetjmp>
#include <csignal>

namespace qel {

#if defined(__x86_64__) || defined(__i386__)

namespace {

// Where this thread continues after a fault; null while it makes no call.
thread_local sigjmp_buf* t_fault_return = nullptr;

void OnFault(int signal_number) {
  if (t_fault_return != nullptr) {
    siglongjmp(*t_fault_return, 1);
  }
  // The fault of a thread that makes no call. With the default action it happens again when this handler returns, and
  // ends the process.
  std::signal(signal_number, SIG_DFL);
}

// Replaces the handler of one signal until the end of a scope.
class FaultHandler {
 public:
  explicit FaultHandler(int signal_number) : signal_number_(signal_number) {
    struct sigaction action {};
    action.sa_handler = OnFault;
    sigemptyset(&action.sa_mask);
    replaced_ = sigaction(signal_number, &action, &previous_) == 0;
  }
  ~FaultHandler() {
    if (replaced_) {
      sigaction(signal_number_, &previous_, nullptr);
    }
  }
  FaultHandler(const FaultHandler&) = delete;
  FaultHandler& operator=(const FaultHandler&) = delete;

  bool IsInPlace() const { return replaced_; }

 private:
  int signal_number_;
  bool replaced_ = false;
  struct sigaction previous_ {};
};

// "memory": the hypervisor also reads and writes memory to which a register points.
void ExecuteCall(HypervisorRegisters& r) {
  __asm__ volatile("rdpmc" : "+a"(r.eax), "+b"(r.ebx), "+c"(r.ecx), "+d"(r.edx), "+S"(r.esi), "+D"(r.edi) : : "memory");
}

}  // namespace

bool CallHypervisor(HypervisorRegisters& registers) {
  const FaultHandler illegal_instruction(SIGILL);
  const FaultHandler access_violation(SIGSEGV);
  if (!illegal_instruction.IsInPlace() || !access_violation.IsInPlace()) {
    return false;
  }
  sigjmp_buf fault_return;
  if (sigsetjmp(fault_return, 1) != 0) {
    t_fault_return = nullptr;
    return false;
  }
  t_fault_return = &fault_return;
  ExecuteCall(registers);
  t_fault_return = nullptr;
  return true;
}

#else

bool CallHypervisor(HypervisorRegisters&) {
  return false;
}

#endif

}  // namespace qel
