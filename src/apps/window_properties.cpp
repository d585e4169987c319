#include "apps/window_properties.h"

#include <X11/Xatom.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "tools_gate/little_endian.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

// Maximum lengths to fetch, in units of 4 bytes. No message and no log line has space for a longer title, and no
// desktop entry has a name longer than this class.
constexpr long kStateListLength = 1024;
constexpr long kTitleLength = 1024;
constexpr long kClassLength = 2048;
constexpr long kAll = static_cast<long>(UINT32_MAX);

constexpr std::size_t kBlockHeaderSize = 2;  // width and height, before the pixels of an icon
constexpr std::uint64_t kSmallIconSide = 16;

// Fetches a property of a window and checks its type and format. All readers below use this class.
class WindowProperty {
 public:
  // Fetches the first `length` 32-bit units of the property, with one round trip. `type` is the expected type, or
  // AnyPropertyType.
  WindowProperty(const Session& session, Window window, Atom property, Atom type, long length) {
    Atom actual_type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long bytes_left = 0;
    unsigned char* data = nullptr;
    const int status = x_api.XGetWindowProperty(session.display, window, property, 0, length, False, type, &actual_type,
                                                &format, &count, &bytes_left, &data);
    data_.reset(data);
    if (status != Success) {
      return;
    }
    exists_ = actual_type != None;
    if (data != nullptr && (type == AnyPropertyType || actual_type == type)) {
      format_ = format;
      count_ = count;
    }
  }

  // Whether the window has the property, with any type.
  bool Exists() const { return exists_; }

  // The number of items; 0 unless the property has the expected type and format 32.
  std::size_t ItemCount() const { return format_ == 32 ? count_ : 0; }

  // `index` must be less than ItemCount(). Xlib returns each 32-bit item as a long, also where a long has 64 bits.
  std::uint32_t Item(std::size_t index) const {
    unsigned long item = 0;
    std::memcpy(&item, data_.get() + index * sizeof item, sizeof item);
    return static_cast<std::uint32_t>(item);
  }

  // The first item; `otherwise` when there is none.
  std::uint32_t FirstItem(std::uint32_t otherwise) const { return ItemCount() > 0 ? Item(0) : otherwise; }

  // The bytes; empty unless the property has the expected type and format 8. Valid as long as this object.
  std::string_view Bytes() const {
    return format_ == 8 ? std::string_view(reinterpret_cast<const char*>(data_.get()), count_) : std::string_view();
  }

 private:
  std::unique_ptr<unsigned char, XFreeDeleter> data_;
  bool exists_ = false;
  int format_ = 0;         // 0 when the property does not have the expected type
  std::size_t count_ = 0;  // number of fetched items
};

// Splits the data of a WM_CLASS property into its two texts.
WmClass ParseWmClass(std::string_view data) {
  WmClass result{.instance = std::string(data.substr(0, data.find('\0'))), .class_name = {}};
  data.remove_prefix(std::min(result.instance.size() + 1, data.size()));
  if (const std::size_t end = data.find('\0'); end != std::string_view::npos) {
    result.class_name = data.substr(0, end);
  }
  return result;
}

// Copies the icon whose header is at `index`. The caller has checked that all its pixels are in the property.
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
  constexpr std::uint32_t kNone = 0xFFFFFFFF;  // -1
  return static_cast<std::int32_t>(
      WindowProperty(session, window, session.atoms.net_wm_pid, XA_CARDINAL, 1).FirstItem(kNone));
}

Window GetClientLeader(const Session& session, Window window) {
  return WindowProperty(session, window, session.atoms.wm_client_leader, XA_WINDOW, 1).FirstItem(None);
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

std::optional<WmClass> ReadWmClass(const Session& session, Window window) {
  const WindowProperty property(session, window, session.atoms.wm_class, XA_STRING, kClassLength);
  return property.Exists() ? std::optional(ParseWmClass(property.Bytes())) : std::nullopt;
}

std::vector<WindowId> ReadClientList(const Session& session) {
  const WindowProperty property(session, session.root, session.atoms.net_client_list, XA_WINDOW, kAll);
  std::vector<WindowId> list(property.ItemCount());
  for (std::size_t i = 0; i < list.size(); ++i) {
    list[i] = property.Item(i);
  }
  return list;
}

void ReadWindowIcons(const Session& session, Window window, IconImage& large, IconImage& small) {
  const WindowProperty property(session, window, session.atoms.net_wm_icon, XA_CARDINAL, kAll);
  const std::size_t count = property.ItemCount();
  std::uint64_t largest_area = 0;
  std::size_t large_index = 0;
  std::optional<std::size_t> small_index;
  for (std::size_t i = 0; count - i >= kBlockHeaderSize;) {
    // The product of two 32-bit numbers fits into 64 bits. It is compared with the rest before it is added to an index.
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
