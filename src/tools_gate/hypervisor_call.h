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

// Makes one call and returns true when it was answered. The instruction faults where no hypervisor intercepts it; that
// is false, and the registers then hold anything. So it is, always, on processors other than x86.
//
// For the time of the call the process's handlers of SIGILL and SIGSEGV are replaced: no other thread may depend on
// them meanwhile.
bool CallHypervisor(HypervisorRegisters& registers);

}  // namespace qel
