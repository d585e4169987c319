#include "session/test_window.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <stdexcept>

#include "support/wait_until.h"

namespace qel::test {
namespace {

// Converts a text to the items of a property of format 8.
std::vector<long> Bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace

XClient::XClient(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
  if (display_ == nullptr) {
    throw std::runtime_error("no X server at " + display);
  }
  XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });  // windows may vanish between two calls
}

void XClient::Closer::operator()(XDisplay* display) const {
  XCloseDisplay(display);
}

Atom XClient::Intern(const char* name) {
  Atom& atom = atoms_[name];
  return atom != None ? atom : atom = XInternAtom(display_.get(), name, False);
}

Window XClient::Root() const {
  return DefaultRootWindow(display_.get());
}

void XClient::Sync() {
  XSync(display_.get(), False);
}

Window XClient::Make(const WindowTraits& traits) {
  const Window parent = traits.parent != 0 ? traits.parent : Root();
  const Window window =
      XCreateSimpleWindow(display_.get(), parent, traits.x, traits.y, traits.width, traits.height, 0, 0, 0xFFFFFF);
  XSetWindowAttributes attributes{};
  attributes.override_redirect = traits.is_managed ? False : True;
  XChangeWindowAttributes(display_.get(), window, CWOverrideRedirect, &attributes);
  if (traits.pid != 0) {
    Change(window, "_NET_WM_PID", "CARDINAL", 32, {traits.pid});
  }
  if (!traits.type.empty()) {
    Change(window, "_NET_WM_WINDOW_TYPE", "ATOM", 32, {static_cast<long>(Intern(traits.type.c_str()))});
  }
  if (!traits.icon.empty()) {
    Change(window, "_NET_WM_ICON", "CARDINAL", 32, {traits.icon.begin(), traits.icon.end()});
  }
  if (!traits.window_class.empty()) {
    Change(window, "WM_CLASS", "STRING", 8, Bytes(traits.window_class));
  }
  Change(window, "_NET_WM_NAME", "UTF8_STRING", 8, Bytes(traits.title));
  // Some window managers need long to place a window among hundreds of others.
  XSizeHints hints{};
  hints.flags = USPosition;
  XSetWMNormalHints(display_.get(), window, &hints);
  if (!traits.wants_focus) {
    Change(window, "_NET_WM_USER_TIME", "CARDINAL", 32, {0});
  }
  // Without this property, a window manager cannot ask the client to close the window.
  Change(window, "WM_PROTOCOLS", "ATOM", 32, {static_cast<long>(Intern("WM_DELETE_WINDOW"))});
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

void XClient::Map(Window window) {
  XMapWindow(display_.get(), window);
  Sync();
}

void XClient::Unmap(Window window) {
  XUnmapWindow(display_.get(), window);
  Sync();
}

void XClient::Reparent(Window window, Window parent) {
  XReparentWindow(display_.get(), window, parent, 0, 0);
  Sync();
}

void XClient::Resize(Window window, unsigned width, unsigned height) {
  XResizeWindow(display_.get(), window, width, height);
  Sync();
}

void XClient::Iconify(Window window) {
  XIconifyWindow(display_.get(), window, DefaultScreen(display_.get()));
  Sync();
}

void XClient::Close(Window window) {
  XDestroyWindow(display_.get(), window);
  Sync();
}

void XClient::GrabServer() {
  XGrabServer(display_.get());
  Sync();
}

void XClient::SetTitle(Window window, const std::string& title) {
  Set(window, "_NET_WM_NAME", "UTF8_STRING", 8, Bytes(title));
}

void XClient::SetIcon(Window window, const std::vector<std::uint32_t>& items) {
  Set(window, "_NET_WM_ICON", "CARDINAL", 32, {items.begin(), items.end()});
}

void XClient::Set(Window window, const char* name, const char* type, int format, const std::vector<long>& items) {
  Change(window, name, type, format, items);
  Sync();
}

void XClient::Change(Window window, const char* name, const char* type, int format, const std::vector<long>& items) {
  const std::vector<unsigned char> bytes(items.begin(), items.end());
  const std::vector<short> shorts(items.begin(), items.end());
  const void* const data = format == 8    ? static_cast<const void*>(bytes.data())
                           : format == 16 ? static_cast<const void*>(shorts.data())
                                          : items.data();
  XChangeProperty(display_.get(), window, Intern(name), Intern(type), format, PropModeReplace,
                  static_cast<const unsigned char*>(data), static_cast<int>(items.size()));
}

void XClient::AppendToTitle(Window window, const std::string& text) {
  XChangeProperty(display_.get(), window, Intern("_NET_WM_NAME"), Intern("UTF8_STRING"), 8, PropModeAppend,
                  reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
}

void XClient::Move(Window window, int x) {
  XMoveWindow(display_.get(), window, x, 0);
}

std::vector<unsigned long> XClient::Get(Window window, const char* name) {
  Atom actual = None;
  int format = 0;
  unsigned long items = 0;
  unsigned long rest = 0;
  unsigned char* data = nullptr;
  XGetWindowProperty(display_.get(), window, Intern(name), 0, 1 << 20, False, AnyPropertyType, &actual, &format, &items,
                     &rest, &data);
  const auto* const longs = reinterpret_cast<const unsigned long*>(data);  // Xlib returns items of format 32 as long
  std::vector<unsigned long> values(longs, longs + (format == 32 && data != nullptr ? items : 0));
  XFree(data);
  return values;
}

bool XClient::WaitUntilManaged(Window window, std::chrono::milliseconds timeout) {
  return WaitUntil([&] { return std::ranges::count(ManagedWindows(), window) == 1; }, timeout);
}

long XClient::WmState(Window window) {
  const auto state = Get(window, "WM_STATE");
  return state.empty() ? -1 : static_cast<long>(state[0]);
}

bool XClient::IsShown(Window window) {
  XWindowAttributes attributes{};
  return XGetWindowAttributes(display_.get(), window, &attributes) != 0 && attributes.map_state == IsViewable;
}

Window XClient::FocusedWindow() {
  Window focus = 0;
  int revert = 0;
  XGetInputFocus(display_.get(), &focus, &revert);
  return focus;
}

Window XClient::TopLevel(Window window) {
  Window root = 0;
  Window parent = 0;
  Window* children = nullptr;
  unsigned count = 0;
  while (XQueryTree(display_.get(), window, &root, &parent, &children, &count) != 0) {
    XFree(children);
    if (parent == root) {
      return window;
    }
    window = parent;
  }
  return 0;
}

bool XClient::WasAskedToClose(Window window) {
  XEvent event;
  while (XCheckTypedWindowEvent(display_.get(), window, ClientMessage, &event) != 0) {
    if (event.xclient.message_type == Intern("WM_PROTOCOLS") &&
        static_cast<Atom>(event.xclient.data.l[0]) == Intern("WM_DELETE_WINDOW")) {
      return true;
    }
  }
  return false;
}

}  // namespace qel::test
