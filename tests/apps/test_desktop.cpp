#include "test_desktop.h"

#include <X11/Xatom.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "host_view.h"

namespace qel::test {
namespace {

std::string SizeOf(const host::Icon& icon) {
  return host::Format("%ux%u", icon.width, icon.height);
}

std::string Describe(const host::Notification& message) {
  if (const auto* added = std::get_if<host::AddRun>(&message)) {
    return Added(added->window, added->name, added->title, SizeOf(added->icon) + (added->small_icon ? "+" : ""));
  }
  if (const auto* removed = std::get_if<host::RmvRun>(&message)) {
    return Removed(removed->window);
  }
  if (const auto* title = std::get_if<host::WindowTitle>(&message)) {
    return host::Format("title %x ", title->window) + title->title;
  }
  if (const auto* icon = std::get_if<host::UpdateAppIcon>(&message)) {
    return host::Format("icon %x ", icon->window) + SizeOf(icon->icon);
  }
  return host::KindName(host::KindOf(message));
}

}  // namespace

XConnection::XConnection(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
  if (display_ == nullptr || XLibLoad() != 0) {
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
  const void* data = items.data();
  std::vector<char> bytes(items.begin(), items.end());  // format 16 is not used
  if (format == 8) {
    data = bytes.data();
  }
  XChangeProperty(connection_, window, AtomOf(property), AtomOf(type), format, PropModeReplace,
                  static_cast<const unsigned char*>(data), static_cast<int>(items.size()));
}

void TestDesktop::SetTitle(Window window, const std::string& title) {
  Set(window, "_NET_WM_NAME", "UTF8_STRING", 8, {title.begin(), title.end()});
}

void TestDesktop::SetClientList(const std::vector<long>& clients) {
  Set(DefaultRootWindow(Connection()), "_NET_CLIENT_LIST", "WINDOW", 32, clients);
}

TestAgent::TestAgent(const TestDesktop& desktop) : desktop_(desktop), connection_(desktop.Name()) {
  desktop_.Sync();
  session_.display = connection_;
  session_.root = DefaultRootWindow(session_.display);
  if (!InternSessionAtoms(session_).empty() || !InternWindowTypes(session_).empty()) {
    throw std::runtime_error("an atom is missing");
  }
  XSelectInput(connection_, session_.root, SubstructureNotifyMask | PropertyChangeMask);
  XSync(connection_, False);
}

std::vector<std::string> TestAgent::Pump() {
  desktop_.Sync();
  HandleEvents();
  return TakeMessages();
}

void TestAgent::Enumerate() {
  tracker_.EnumerateWindows();
  HandleEvents();
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
}

std::vector<std::string> TestAgent::TakeMessages() {
  return std::exchange(messages_, {});
}

bool TestAgent::Record(const TgRequest& request) {
  if (const auto once = std::exchange(on_message, nullptr)) {
    once();
  }
  messages_.push_back(describe_messages ? Describe(HostView(request)) : "");
  return true;
}

std::string Added(Window toplevel, const std::string& name, const std::string& title, const std::string& icon) {
  return host::Format("add %lx ", toplevel) + name + "|" + title + " " + icon;
}

std::string Removed(Window toplevel) {
  return host::Format("remove %lx", toplevel);
}

}  // namespace qel::test
