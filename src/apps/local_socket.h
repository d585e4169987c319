// Tells other local programs how many applications are shared with the host.
#pragma once

#include <mutex>

#include "apps/running_app_registry.h"
#include "base/file_descriptor.h"
#include "base/stop_flag.h"

namespace qel {

// A stream socket in the abstract namespace with the name "corvessan-tdl-socket", in an address of 110 bytes. A client
// that connects receives the number of registered processes (4 bytes, in the byte order of the machine) and then the
// end of the stream. The registry must outlive the object.
class LocalSocket {
 public:
  explicit LocalSocket(RunningAppRegistry& registry) : registry_(registry) {}

  // The thread routine: serves one client after the other until Stop() is called. Failures are logged.
  void LocalSocketThread();

  // ClearStop() sets `SocketThreadRunning`; it must be called before the thread is created. Stop() clears the flag and
  // wakes the thread, which closes the socket and ends. Any thread may call both.
  void ClearStop();
  void Stop();

 private:
  bool Open();
  void Close();
  void Serve(FileDescriptor connection);

  RunningAppRegistry& registry_;

  StopFlag stop_;  // set when the thread is to end: not `SocketThreadRunning`

  // The thread opens and closes the socket under the lock. Stop() shuts it down under the lock, so that it never meets
  // a number that was closed and given to another file.
  std::mutex socket_lock_;
  FileDescriptor listen_socket_;
};

}  // namespace qel
