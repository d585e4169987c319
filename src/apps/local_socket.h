// Tells other programs of the session how many applications are shared.
#pragma once

#include <condition_variable>
#include <mutex>

#include "apps/running_app_registry.h"
#include "base/file_descriptor.h"

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
  bool IsRunning();
  void PauseAfterFailure();
  void Serve(FileDescriptor connection);

  RunningAppRegistry& registry_;

  // Guards what follows. The descriptor is opened and closed under the lock by the thread, and shut down under it by
  // Stop(), which thus never meets a number that has been closed and given to another file.
  std::mutex lock_;
  std::condition_variable stop_requested_;
  FileDescriptor listen_socket_;
  bool socket_thread_running_ = false;
};

}  // namespace qel
