#include "tools_service/x_service_control.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "log/log.h"
#include "tools_service/randr_api.h"
#include "tools_service/x_library.h"
#include "tools_service/x_requests.h"

namespace qel {
namespace {

// The control that the I/O error handler and the event receiver use.
QelXServiceControl* g_control = nullptr;

Display* DisplayOf(const ServiceContext& context) {
  return static_cast<Display*>(context.display);
}

// X errors are normal, because a window may be destroyed between two calls.
int IgnoreError(Display* /*display*/, XErrorEvent* /*event*/) {
  return 0;
}

// The major opcode of an extension; -1 when the server does not have it.
int QueryExtension(Display* display, const char* name) {
  int major_opcode = 0;
  int first_event = 0;
  int first_error = 0;
  return x_api.XQueryExtension(display, name, &major_opcode, &first_event, &first_error) != 0 ? major_opcode : -1;
}

}  // namespace

bool QelXServiceControl::Init(key_t key, bool own_user_session) {
  if (!QelBaseServiceControl::Init(key, own_user_session)) {
    return false;
  }
  if (XLibLoad() != 0) {
    QelBaseServiceControl::Deinit();
    return false;
  }
  g_control = this;
  x_api.XSetErrorHandler(IgnoreError);
  x_api.XSetIOErrorHandler([](Display*) -> int {
    if (g_control->IsWorkerThread()) {
      g_control->OnConnectionLost();
    }
    pthread_exit(nullptr);  // if the handler returned, Xlib would end the process
  });
  RandR12Init();
  if (const char* name = std::getenv("DISPLAY")) {
    display_name_ = name;
  } else {
    LogWarning(kModuleService, "Warning: Tools Service: no DISPLAY environment variable found");
  }
  LogInfo(kModuleService, "Tools Service: initialized X11 service on display '%s'", display_name_.c_str());
  return true;
}

bool QelXServiceControl::Deinit() {
  if (!QelBaseServiceControl::Deinit()) {
    return false;
  }
  RandR12Deinit();
  XLibUnload();
  LogInfo(kModuleService, "Tools Service: deinitialized X11 service");
  return true;
}

void QelXServiceControl::OnConnectionLost() {
  LogInfo(kModuleService, "Tools Service: XIOError received");
  Stop();
  Cleanup();
  LogInfo(kModuleService, "Tools Service: Will exit X worker thread now");
}

bool QelXServiceControl::Connect() {
  Display* display = x_api.XOpenDisplay(nullptr);
  if (display == nullptr) {
    LogError(kModuleService, "Error: Tools Service: can't open connection to XServer!");
    return false;
  }
  context_ = {kConnectionX11, display, -1};  // from now on Disconnect() closes the display
  SetConnection(FileDescriptor(fcntl(ConnectionNumber(display), F_DUPFD_CLOEXEC, 0)));
  marker_request_ = 0;
  x_requests::ReceiveEventsAsRead(display, [](XEvent& event) {
    ++g_control->events_read_;
    g_control->HandOut(&event);
  });
  if (QueryExtension(display, "RANDR") < 0) {
    LogError(kModuleService, "Error: Tools Service: can't open %s extension!", "RANDR");
    return false;
  }
  context_.control_extension_opcode = QueryExtension(display, "CorvessanControl");
  if (context_.control_extension_opcode < 0) {
    LogWarning(kModuleService, "Warning: Tools Service: can't open %s extension!", "CorvessanControl");
  }
  return true;
}

bool QelXServiceControl::OwnUserSession() {
  const int opcode = context_.control_extension_opcode;
  return opcode < 1 || x_requests::ClaimUserSession(DisplayOf(context_), opcode, getuid());
}

bool QelXServiceControl::IsConsoleActive() {
  const int opcode = context_.control_extension_opcode;
  return opcode < 1 || x_requests::IsConsoleActive(DisplayOf(context_), opcode);
}

// XPending() reads all events in the socket, a few thousand at most. Core events are passed to the services while they
// are read; only other events get into Xlib's queue.
//
// The server may have more events than the socket can hold. Then a marker request is sent. When its answer arrives, all
// events from before it have been read.
void QelXServiceControl::DispatchEvents() {
  constexpr int kSocketful = 4000;
  constexpr int kFlood = 8000;  // events between a marker and its answer from which on more events are expected
  Display* display = DisplayOf(context_);
  while (State() == kServiceRunning && x_api.XPending(display) > 0) {
    XEvent event;
    x_api.XNextEvent(display, &event);
    HandOut(&event);
  }
  if (marker_request_ != 0 && LastKnownRequestProcessed(display) < marker_request_) {
    return;
  }
  const bool more_wait = std::exchange(events_read_, 0) >= (marker_request_ == 0 ? kSocketful : kFlood);
  marker_request_ = 0;
  if (more_wait) {
    SendMarker();
  }
}

// The marker is a request that fails. The server sends the error after all earlier events, and no call has to wait for
// it.
void QelXServiceControl::SendMarker() {
  Display* display = DisplayOf(context_);
  marker_request_ = NextRequest(display);
  x_api.XSelectInput(display, None, NoEventMask);
  x_api.XFlush(display);
}

void QelXServiceControl::AwaitEvents() {
  constexpr int kMilliseconds = 20;
  pollfd connection{.fd = ConnectionNumber(DisplayOf(context_)), .events = POLLIN, .revents = 0};
  poll(&connection, 1, kMilliseconds);
}

void QelXServiceControl::SetConnection(FileDescriptor connection) {
  const std::lock_guard guard(connection_lock_);
  connection_ = std::move(connection);
}

// After this, a call of the worker that waits for the server fails, and the worker finds its connection lost.
void QelXServiceControl::BreakConnection() {
  const std::lock_guard guard(connection_lock_);
  if (connection_.IsOpen()) {
    shutdown(connection_.Get(), SHUT_RDWR);
  }
}

void QelXServiceControl::Disconnect() {
  // XCloseDisplay() may find the connection lost; then this function is called again from inside of it. The second
  // XCloseDisplay() only frees the display, and the thread ends in the I/O error handler.
  x_api.XCloseDisplay(DisplayOf(context_));
  SetConnection({});
}

}  // namespace qel
