// The service control of an X11 session.
#pragma once

#include <mutex>

#include "base/file_descriptor.h"
#include "tools_service/base_service_control.h"

namespace qel {

// Opens its display on the worker thread. The server is asked, through its extension "CorvessanControl", whether the
// graphical console is this session's; a server without the extension is taken to be always on the console.
//
// The process's X error handlers are set by Init(). A connection that the worker finds lost ends the services; then, as
// with any other thread's connection, it ends the thread that noticed it, by pthread_exit(). On the way no destructor
// may use the display, which is closed by then.
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
  bool IsBehind() const override { return marker_ != 0; }
  void AwaitEvents() override;

 private:
  void SetConnection(FileDescriptor connection);
  void OnConnectionLost();
  void SendMarker();

  int events_read_ = 0;       // since the last look at them
  unsigned long marker_ = 0;  // the request whose answer comes behind the waiting events; 0: no events wait
  std::mutex connection_lock_;
  FileDescriptor connection_;  // a copy of the display's, which nobody else closes; guarded by the lock
};

}  // namespace qel
