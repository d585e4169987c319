#include "apps/window_properties.h"

#include <X11/Xatom.h>

#include <cstddef>
#include <new>
#include <string_view>

#include "apps/window_property.h"
#include "tools_gate/little_endian.h"

namespace qel {
namespace {

// What is fetched at most, in units of 4 bytes. A title of more bytes than this fills every field and line it goes
// into.
constexpr long kStateListLength = 1024;
constexpr long kTitleLength = 1024;
constexpr std::size_t kBlockHeaderSize = 2;  // an icon's width and height stand before its pixels
constexpr std::uint64_t kSmallIconSide = 16;

// The icon whose header stands at `index`, which lies within the property with all its pixels.
IconImage CopyIcon(const WindowProperty& property, std::size_t index) {
  IconImage icon;
  const std::uint32_t width = property.Item(index);
  const std::uint32_t height = property.Item(index + 1);
  const std::size_t pixels = std::size_t{width} * height;
  try {
    icon.bytes.resize(pixels * 4);
  } catch (const std::bad_alloc&) {
    return {};
  }
  icon.width = width;
  icon.height = height;
  for (std::size_t i = 0; i < pixels; ++i) {
    StoreU32(icon.bytes.data() + 4 * i, property.Item(index + kBlockHeaderSize + i));
  }
  return icon;
}

}  // namespace

std::int32_t GetWindowPid(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.net_wm_pid, XA_CARDINAL, 1);
  return property.ItemCount() > 0 ? static_cast<std::int32_t>(property.Item(0)) : -1;
}

Window GetClientLeader(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.wm_client_leader, XA_WINDOW, 1);
  return property.ItemCount() > 0 ? property.Item(0) : None;
}

bool HasWmState(const Session& session, Window window) {
  return WindowProperty(session, window, session.atoms.wm_state, AnyPropertyType, 0).Exists();
}

std::string GetWindowTitle(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.net_wm_name, session.atoms.utf8_string, kTitleLength);
  const std::string_view bytes = property.Bytes();
  return std::string(bytes.substr(0, bytes.find('\0')));
}

bool IsWindowHidden(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.net_wm_state, XA_ATOM, kStateListLength);
  for (std::size_t i = 0; i < property.ItemCount(); ++i) {
    if (property.Item(i) == session.atoms.net_wm_state_hidden) {
      return true;
    }
  }
  return false;
}

std::optional<Atom> ReadWindowType(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.net_wm_window_type, XA_ATOM, 1);
  if (property.ItemCount() == 0) {
    return std::nullopt;
  }
  return property.Item(0);
}

void ReadWindowIcons(const Session& session, Window window, IconImage& large, IconImage& small) {
  const WindowProperty property(session, window, session.atoms.net_wm_icon, XA_CARDINAL, WindowProperty::kAll);
  const std::size_t count = property.ItemCount();
  std::uint64_t largest_area = 0;
  std::size_t large_index = 0;
  std::optional<std::size_t> small_index;
  for (std::size_t i = 0; count - i >= kBlockHeaderSize;) {
    // The product of two 32-bit numbers fits; it is compared with what is left before anything is added to it.
    const std::uint64_t width = property.Item(i);
    const std::uint64_t height = property.Item(i + 1);
    const std::uint64_t area = width * height;
    if (area > count - i - kBlockHeaderSize) {
      break;
    }
    if (area > largest_area) {
      largest_area = area;
      large_index = i;
    }
    if (width == kSmallIconSide && height == kSmallIconSide) {
      small_index = i;
    }
    i += kBlockHeaderSize + static_cast<std::size_t>(area);
  }
  if (largest_area == 0) {
    return;
  }
  large = CopyIcon(property, large_index);
  if (small_index) {
    small = CopyIcon(property, *small_index);
  }
}

}  // namespace qel
