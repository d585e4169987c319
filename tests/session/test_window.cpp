#include "session/test_window.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <stdexcept>

#include "support/wait_until.h"

namespace qel::test {

XClient::XClient(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
  if (display_ == nullptr) {
    throw std::runtime_error("no X server at " + display);
  }
  XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });  // windows die under the tests' hands
}

void XClient::Closer::operator()(XDisplay* display) const {
  XCloseDisplay(display);
}

Atom XClient::Intern(const char* name) {
  Atom& atom = atoms_[name];
  return atom != None ? atom : atom = XInternAtom(display_.get(), name, False);
}

bool XClient::Exists(const char* name) {
  return XInternAtom(display_.get(), name, True) != None;
}

bool XClient::RootHas(const char* property) {
  const Atom atom = XInternAtom(display_.get(), property, True);
  int count = 0;
  Atom* const properties = XListProperties(display_.get(), Root(), &count);
  const bool found = std::find(properties, properties + count, atom) != properties + count;
  XFree(properties);
  return found;
}

Window XClient::Root() const {
  return DefaultRootWindow(display_.get());
}

void XClient::Sync() {
  XSync(display_.get(), False);
}

void XClient::Iconify(Window window) {
  XIconifyWindow(display_.get(), window, DefaultScreen(display_.get()));
  Sync();
}

Window XClient::Make(const WindowTraits& traits) {
  XDisplay* display = display_.get();
  const Window parent = traits.parent != 0 ? traits.parent : Root();
  const Window window =
      XCreateSimpleWindow(display, parent, traits.x, traits.y, traits.width, traits.height, 0, 0, 0xFFFFFF);
  if (traits.pid != 0) {
    const long pid = traits.pid;
    Change(window, "_NET_WM_PID", "CARDINAL", 32, &pid, 1);
  }
  if (!traits.type.empty()) {
    const auto type = static_cast<long>(Intern(traits.type.c_str()));
    Change(window, "_NET_WM_WINDOW_TYPE", "ATOM", 32, &type, 1);
  }
  if (!traits.icon.empty()) {
    const std::vector<long> longs(traits.icon.begin(), traits.icon.end());
    Change(window, "_NET_WM_ICON", "CARDINAL", 32, longs.data(), static_cast<int>(longs.size()));
  }
  if (!traits.window_class.empty()) {
    Change(window, "WM_CLASS", "STRING", 8, traits.window_class.data(), static_cast<int>(traits.window_class.size()));
  }
  Change(window, "_NET_WM_NAME", "UTF8_STRING", 8, traits.title.data(), static_cast<int>(traits.title.size()));
  // Some window managers take long to find a place among hundreds of others.
  XSizeHints hints{};
  hints.flags = USPosition;
  XSetWMNormalHints(display, window, &hints);
  if (!traits.wants_focus) {
    const long never = 0;
    Change(window, "_NET_WM_USER_TIME", "CARDINAL", 32, &never, 1);
  }
  // Without it a client could not be asked to close.
  Atom protocols[] = {Intern("WM_DELETE_WINDOW")};
  XSetWMProtocols(display, window, protocols, 1);
  return window;
}

Window XClient::Create(const WindowTraits& traits) {
  const Window window = Make(traits);
  Sync();
  return window;
}

std::vector<Window> XClient::OpenMany(const std::vector<WindowTraits>& windows) {
  std::vector<Window> opened;
  for (const WindowTraits& traits : windows) {
    opened.push_back(Make(traits));
    XMapWindow(display_.get(), opened.back());
  }
  Sync();
  return opened;
}

Window XClient::CreateFrame() {
  return XCreateSimpleWindow(display_.get(), Root(), 0, 0, 300, 200, 0, 0, 0);
}

void XClient::Resize(Window window, unsigned width, unsigned height) {
  XResizeWindow(display_.get(), window, width, height);
  Sync();
}

void XClient::Map(Window window) {
  XMapWindow(display_.get(), window);
  Sync();
}

void XClient::SetClientList(const std::vector<Window>& windows) {
  SetProperty(Root(), "_NET_CLIENT_LIST", "WINDOW", 32, windows.data(), static_cast<int>(windows.size()));
}

void XClient::Close(Window window) {
  XDestroyWindow(display_.get(), window);
  Sync();
}

void XClient::Unmap(Window window) {
  XUnmapWindow(display_.get(), window);
  Sync();
}

void XClient::SetTitle(Window window, const std::string& title) {
  SetProperty(window, "_NET_WM_NAME", "UTF8_STRING", 8, title.data(), static_cast<int>(title.size()));
}

void XClient::SetIcon(Window window, const std::vector<std::uint32_t>& items) {
  const std::vector<long> longs(items.begin(), items.end());
  SetProperty(window, "_NET_WM_ICON", "CARDINAL", 32, longs.data(), static_cast<int>(longs.size()));
}

void XClient::SetProperty(Window window, const char* name, const char* type, int format, const void* data, int items) {
  Change(window, name, type, format, data, items);
  Sync();
}

void XClient::SetCardinal(Window window, const char* name, std::uint32_t value) {
  const long item = value;
  SetProperty(window, name, "CARDINAL", 32, &item, 1);
}

void XClient::SetAtom(Window window, const char* name, const char* value) {
  const auto item = static_cast<long>(Intern(value));
  SetProperty(window, name, "ATOM", 32, &item, 1);
}

void XClient::AppendToTitle(Window window, const std::string& text) {
  Change(window, "_NET_WM_NAME", "UTF8_STRING", 8, text.data(), static_cast<int>(text.size()), PropModeAppend);
  Sync();
}

long XClient::Flood(Window window, std::chrono::milliseconds time, const std::string& last) {
  constexpr int kBeforeLooking = 1000;
  const auto end = std::chrono::steady_clock::now() + time;
  long changes = 0;
  while (std::chrono::steady_clock::now() < end) {
    for (int i = 0; i < kBeforeLooking; ++i, ++changes) {
      if (changes % 2 == 0) {
        const std::string title = "flood " + std::to_string(changes);
        Change(window, "_NET_WM_NAME", "UTF8_STRING", 8, title.data(), static_cast<int>(title.size()));
      } else {
        const long icon[] = {1, 1, changes};
        Change(window, "_NET_WM_ICON", "CARDINAL", 32, icon, 3);
      }
    }
  }
  SetTitle(window, last);
  return changes;
}

void XClient::FloodMoves(Window window, std::chrono::milliseconds time) {
  const Window child = XCreateSimpleWindow(display_.get(), window, 0, 0, 5, 5, 0, 0, 0);
  XMapWindow(display_.get(), child);
  const auto end = std::chrono::steady_clock::now() + time;
  for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
    XMoveWindow(display_.get(), child, i % 20, 0);
  }
  Sync();
}

void XClient::GrabServer() {
  XGrabServer(display_.get());
  Sync();
}

void XClient::Change(Window window, const char* name, const char* type, int format, const void* data, int items,
                     int mode) {
  XChangeProperty(display_.get(), window, Intern(name), Intern(type), format, mode,
                  static_cast<const unsigned char*>(data), items);
}

bool XClient::WasAskedToClose(Window window) {
  const Atom delete_window = Intern("WM_DELETE_WINDOW");
  XEvent event;
  while (XCheckTypedWindowEvent(display_.get(), window, ClientMessage, &event) != 0) {
    if (event.xclient.message_type == Intern("WM_PROTOCOLS") &&
        static_cast<Atom>(event.xclient.data.l[0]) == delete_window) {
      return true;
    }
  }
  return false;
}

std::vector<Window> XClient::ManagedWindows() {
  return ReadLongs(Root(), "_NET_CLIENT_LIST", XA_WINDOW);
}

bool XClient::WaitUntilManaged(Window window, std::chrono::milliseconds timeout) {
  const auto managed = [&] {
    const auto clients = ManagedWindows();
    return std::find(clients.begin(), clients.end(), window) != clients.end();
  };
  return WaitUntil(managed, timeout);
}

bool XClient::IsShown(Window window) {
  XWindowAttributes attributes{};
  return XGetWindowAttributes(display_.get(), window, &attributes) != 0 && attributes.map_state == IsViewable;
}

long XClient::WmState(Window window) {
  const auto state = ReadLongs(window, "WM_STATE", Intern("WM_STATE"));
  return state.empty() ? -1 : static_cast<long>(state[0]);
}

Window XClient::FocusedWindow() {
  Window focus = 0;
  int revert = 0;
  XGetInputFocus(display_.get(), &focus, &revert);
  return focus;
}

Window XClient::TopLevel(Window window) {
  for (;;) {
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned count = 0;
    if (XQueryTree(display_.get(), window, &root, &parent, &children, &count) == 0) {
      return 0;
    }
    XFree(children);
    if (parent == root) {
      return window;
    }
    window = parent;
  }
}

std::vector<Window> XClient::Stacking() {
  Window root = 0;
  Window parent = 0;
  Window* children = nullptr;
  unsigned count = 0;
  if (XQueryTree(display_.get(), Root(), &root, &parent, &children, &count) == 0) {
    return {};
  }
  std::vector<Window> windows(children, children + count);
  XFree(children);
  return windows;
}

std::vector<unsigned long> XClient::ReadLongs(Window window, const char* name, Atom type) {
  Atom actual = None;
  int format = 0;
  unsigned long items = 0;
  unsigned long rest = 0;
  unsigned char* data = nullptr;
  if (XGetWindowProperty(display_.get(), window, Intern(name), 0, 1 << 20, False, type, &actual, &format, &items, &rest,
                         &data) != Success ||
      data == nullptr) {
    return {};
  }
  std::vector<unsigned long> values;
  if (format == 32) {
    const auto* longs = reinterpret_cast<const unsigned long*>(data);  // how Xlib hands out format 32
    values.assign(longs, longs + items);
  }
  XFree(data);
  return values;
}

}  // namespace qel::test
