// Tells other programs of the session how many applications are shared.
#pragma once

#include <mutex>

#include "apps/running_app_registry.h"
#include "base/file_descriptor.h"
#include "base/stop_flag.h"

namespace qel {

// A stream socket in the abstract namespace, by the name of "corvessan-tdl-socket" in an address of the full 110 bytes.
// Whoever connects receives the number of registered processes as 4 bytes and the end of the stream.
class LocalSocket {
 public:
  explicit LocalSocket(RunningAppRegistry& registry) : registry_(registry) {}

  // The thread routine: serves one client after the other until Stop() is called. Failures are logged.
  void LocalSocketThread();

  // ClearStop() sets `SocketThreadRunning`, to be called before the thread is created; Stop() clears it and wakes the
  // thread, which closes the socket. Callable from any thread.
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
