// The service control of an X11 session.
#pragma once

#include <mutex>

#include "base/file_descriptor.h"
#include "tools_service/base_service_control.h"

namespace qel {

// Opens the display on the worker thread. It asks the server, through the extension "CorvessanControl", whether the
// graphical console belongs to this session. A server without the extension counts as always on the console.
//
// Init() sets the X error handlers of the process. A thread that finds its connection lost is ended by pthread_exit();
// the worker stops the services before that. Destructors that run in this situation must not use the display, which is
// already closed.
class QelXServiceControl : public QelBaseServiceControl {
 public:
  QelXServiceControl() : QelBaseServiceControl("X11") {}

  bool Init(key_t key, bool own_user_session) override;
  bool Deinit() override;
  bool OwnUserSession() override;
  bool IsConsoleActive() override;

 protected:
  bool Connect() override;
  void Disconnect() override;
  void BreakConnection() override;
  void DispatchEvents() override;
  void DispatchIdleEvents() override { DispatchEvents(); }
  bool HasBacklog() const override { return marker_request_ != 0; }
  void AwaitEvents() override;

 private:
  void SetConnection(FileDescriptor connection);
  void OnConnectionLost();
  void SendMarker();

  int events_read_ = 0;               // number of events since DispatchEvents() has checked it
  unsigned long marker_request_ = 0;  // sequence number of the marker request; 0: none is sent
  std::mutex connection_lock_;
  FileDescriptor connection_;  // a duplicate of the display's descriptor; guarded by the lock
};

}  // namespace qel
