// The processor instruction with which a guest calls its hypervisor.
#pragma once

#include <cstdint>

namespace qel {

// The registers that are passed to the hypervisor and returned by it.
struct HypervisorRegisters {
  std::uint32_t eax = 0;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 0;
  std::uint32_t edx = 0;
  std::uint32_t esi = 0;
  std::uint32_t edi = 0;
};

// Makes one call. Returns true when the hypervisor has answered; then the registers hold the answer. Returns false when
// no hypervisor intercepts the instruction (it causes a fault, and the registers are undefined), and always on
// processors other than x86.
//
// During the call the handlers of SIGILL and SIGSEGV of the whole process are replaced. So only one thread may call it
// at a time, and no other thread may need these handlers.
bool CallHypervisor(HypervisorRegisters& registers);

}  // namespace qel
