// An agent's end of the device in a few lines: puts requests into memory below 4 GiB and writes their address.
#pragma once

#include "host/gate_request.h"

namespace qel::host::test {

struct Submitted {
  int error = 0;  // errno value of the write, 0 if it took 4 bytes
  std::uint32_t status = 0;
  Bytes inline_data;
  std::vector<Bytes> buffers;  // as they were after the write
};

// An open device and memory below 4 GiB for the requests. Used by one thread.
class LowMemoryClient {
 public:
  LowMemoryClient();
  ~LowMemoryClient();
  LowMemoryClient(const LowMemoryClient&) = delete;
  LowMemoryClient& operator=(const LowMemoryClient&) = delete;

  bool IsOpen() const { return device_ >= 0; }
  int OpenError() const { return open_error_; }
  Submitted Submit(const GateRequest& request);
  // As Submit(), again while the host asks for it.
  Submitted SubmitUntilTaken(const GateRequest& request);
  // Writes these bytes to the device; 0 or an errno value.
  int Write(ByteView bytes) const;

 private:
  int device_ = -1;
  int open_error_ = 0;
  std::uint8_t* memory_ = nullptr;
  std::uint32_t base_ = 0;
};

}  // namespace qel::host::test
