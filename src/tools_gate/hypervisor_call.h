// The instruction by which a guest calls its hypervisor.
#pragma once

#include <cstdint>

namespace qel {

// The registers that go in and come back.
struct HypervisorRegisters {
  std::uint32_t eax = 0;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 0;
  std::uint32_t edx = 0;
  std::uint32_t esi = 0;
  std::uint32_t edi = 0;
};

// Makes one call. Returns true when the hypervisor answered: the registers then hold the answer. Returns false where no
// hypervisor intercepts the instruction (it faults then, and the registers are undefined) and on processors other than
// x86.
//
// During the call the process's handlers of SIGILL and SIGSEGV are replaced: no other thread may depend on them.
bool CallHypervisor(HypervisorRegisters& registers);

}  // namespace qel
