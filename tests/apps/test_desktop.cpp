#include "test_desktop.h"

#include <X11/Xatom.h>

#include <stdexcept>
#include <utility>

#include "base/overloaded.h"
#include "host_view.h"

namespace qel::test {
namespace {

std::string Describe(const host::Notification& message) {
  const auto size = [](const host::Icon& icon) { return host::Format("%ux%u", icon.width, icon.height); };
  return std::visit(
      Overloaded{[&](const host::AddRun& m) {
                   return Added(m.window, m.name, m.title, size(m.icon) + (m.small_icon ? "+" : ""));
                 },
                 [](const host::RmvRun& m) { return Removed(m.window); },
                 [](const host::WindowTitle& m) { return host::Format("title %x ", m.window) + m.title; },
                 [&](const host::UpdateAppIcon& m) { return host::Format("icon %x ", m.window) + size(m.icon); },
                 [&](const auto&) { return std::string(host::KindName(host::KindOf(message))); }},
      message);
}

}  // namespace

XConnection::XConnection(const std::string& display) : unique_ptr(XOpenDisplay(display.c_str())) {
  if (get() == nullptr || XLibLoad() != 0) {
    throw std::runtime_error("no connection to the X server");
  }
  XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
}

TestDesktop::TestDesktop() : connection_(server_.Display()) {
#define QEL_SESSION_ATOM(member, name) AtomOf(name);
#define QEL_WINDOW_TYPE(row, name) AtomOf(name);
#include "apps/session_atoms.def"
#undef QEL_SESSION_ATOM
#undef QEL_WINDOW_TYPE
}

Window TestDesktop::Make(const WindowOptions& options) {
  const Window parent = options.parent != None ? options.parent : DefaultRootWindow(Connection());
  const Window window = XCreateSimpleWindow(connection_, parent, 0, 0, options.width, options.height, 0, 0, 0);
  if (options.type != nullptr) {
    Set(window, "_NET_WM_WINDOW_TYPE", "ATOM", 32, {static_cast<long>(AtomOf(options.type))});
  }
  if (options.pid != 0) {
    Set(window, "_NET_WM_PID", "CARDINAL", 32, {options.pid});
  }
  if (options.listed) {
    clients_.push_back(static_cast<long>(window));
    SetClientList(clients_);
  }
  if (options.mapped) {
    XMapWindow(connection_, window);
  }
  return window;
}

void TestDesktop::Destroy(Window window) {
  XDestroyWindow(connection_, window);
  std::erase(clients_, static_cast<long>(window));
  SetClientList(clients_);
  Sync();
}

void TestDesktop::Set(Window window, const char* property, const char* type, int format,
                      const std::vector<long>& items) {
  const std::vector<char> bytes(items.begin(), items.end());  // format 16 is not used
  const void* const data = format == 8 ? static_cast<const void*>(bytes.data()) : items.data();
  XChangeProperty(connection_, window, AtomOf(property), AtomOf(type), format, PropModeReplace,
                  static_cast<const unsigned char*>(data), static_cast<int>(items.size()));
}

TestAgent::TestAgent(const TestDesktop& desktop) : desktop_(desktop), connection_(desktop.Name()) {
  desktop_.Sync();
  session_.display = connection_;
  session_.root = DefaultRootWindow(session_.display);
  InternSessionAtoms(session_);
  InternWindowTypes(session_);
  XSelectInput(connection_, session_.root, SubstructureNotifyMask | PropertyChangeMask);
  XSync(connection_, False);
}

std::vector<std::string> TestAgent::Pump() {
  desktop_.Sync();
  HandleEvents();
  return TakeMessages();
}

void TestAgent::HandleEvents() {
  XSync(connection_, False);
  do {
    while (XPending(connection_) > 0) {
      XEvent event;
      XNextEvent(connection_, &event);
      tracker_.HandleWindowEvent(event);
    }
  } while (tracker_.Work());
  XSync(connection_, False);  // what the test does next comes after the agent's last requests
}

bool TestAgent::Record(const TgRequest& request) {
  if (const auto once = std::exchange(on_message, nullptr)) {
    once();
  }
  messages_.push_back(describe_messages ? Describe(HostView(request)) : "");
  return true;
}

}  // namespace qel::test
