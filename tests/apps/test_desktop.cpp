#include "test_desktop.h"

#include <X11/Xatom.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace qel::test {
namespace {

std::string Hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", value);
  return text;
}

// A command block as the host reads it; texts are taken to be ASCII.
class Block {
 public:
  explicit Block(const TgBuffer& buffer) : data_(buffer.data, buffer.size) {}

  std::uint32_t Number(std::size_t offset) const {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      value |= std::to_integer<std::uint32_t>(data_[offset + i]) << (8 * i);
    }
    return value;
  }
  std::string Text(std::size_t offset) const {
    std::string text;
    for (; data_[offset] != std::byte{0}; offset += 2) {
      text += std::to_integer<char>(data_[offset]);
    }
    return text;
  }
  std::string Size(std::size_t offset) const {
    return std::to_string(Number(offset)) + "x" + std::to_string(Number(offset + 4));
  }

 private:
  std::span<const std::byte> data_;
};

std::string Describe(const Block& block) {
  switch (block.Number(0)) {
    case 100:
      return "ready";
    case 101:
      return "not ready";
    case 104:
      return Added(block.Number(1084), block.Text(40), block.Text(1092),
                   block.Size(1614) + ((block.Number(36) & 2) != 0 ? "+" : ""));
    case 105:
      return Removed(block.Number(36));
    case 112:
      return "title " + Hex(block.Number(36)) + " " + block.Text(44);
    case 113:
      return "enumerated";
    case 125:
      return "menu";
    case 137:
      return "icon " + Hex(block.Number(40)) + " " + block.Size(48);
    default:
      return "message " + std::to_string(block.Number(0));
  }
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
  if (!InternSessionAtoms(session_) || !InternWindowTypes(session_)) {
    throw std::runtime_error("an atom is missing");
  }
  XSelectInput(connection_, session_.root, SubstructureNotifyMask);
  XSync(connection_, False);
}

std::vector<std::string> TestAgent::Pump() {
  desktop_.Sync();
  HandleEvents();
  return TakeMessages();
}

void TestAgent::HandleEvents() {
  XSync(connection_, False);
  while (XPending(connection_) > 0) {
    XEvent event;
    XNextEvent(connection_, &event);
    tracker_.HandleWindowEvent(event);
  }
}

std::vector<std::string> TestAgent::TakeMessages() {
  const std::lock_guard guard(lock_);
  return std::exchange(messages_, {});
}

bool TestAgent::Record(TgRequest& request) {
  const Block block(request.buffers[0]);
  if (block.Number(0) != 0) {  // 0 asks for a host command, and there is none
    const std::lock_guard guard(lock_);
    messages_.push_back(describe_messages ? Describe(block) : "");
  }
  return true;
}

std::string Added(Window toplevel, const std::string& name, const std::string& title, const std::string& icon) {
  return "add " + Hex(static_cast<std::uint32_t>(toplevel)) + " " + name + "|" + title + " " + icon;
}

std::string Removed(Window toplevel) {
  return "remove " + Hex(static_cast<std::uint32_t>(toplevel));
}

}  // namespace qel::test
