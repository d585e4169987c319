// Window properties of any type, format and length, read through a scripted XGetWindowProperty().
//
// The input says for the property: whether there is one, its type, its format, and its bytes.
#include <X11/Xatom.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "apps/window_properties.h"
#include "desktop/desktop_kind.h"
#include "support/fuzzed_data.h"
#include "tools_gate/little_endian.h"
#include "tools_service/x_library.h"

namespace {

using qel::fuzz::Expect;
using qel::fuzz::UpToZero;

constexpr Atom kUtf8 = 300;
constexpr Atom kHidden = 301;

// The same property for all names. `items` are its bytes as numbers of its format.
struct Property {
  int status = Success;
  Atom type = None;
  int format = 8;
  std::vector<std::uint32_t> items;

  bool Has(Atom wanted_type, int wanted_format) const {
    return status == Success && type == wanted_type && format == wanted_format;
  }
};

Property g_property;
int g_allocated = 0;

unsigned char* Allocate(std::size_t size) {
  ++g_allocated;
  return static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(size, 1)));
}

// Like Xlib: the data has the requested length, and an item of format 32 takes a long.
int GetProperty(Display*, Window, Atom, long offset, long length, Bool, Atom wanted, Atom* type, int* format,
                unsigned long* count, unsigned long* bytes_left, unsigned char** data) {
  Expect(offset == 0, "properties are read from the beginning");
  if (g_property.status != Success) {
    return g_property.status;
  }
  *type = g_property.type;
  *format = g_property.type == None ? 0 : g_property.format;
  *count = 0;
  *bytes_left = 0;
  *data = nullptr;
  if (g_property.type == None) {
    return Success;
  }
  const std::size_t width = static_cast<std::size_t>(g_property.format) / 8;
  const bool fits_type = wanted == AnyPropertyType || wanted == g_property.type;
  *count = fits_type ? std::min(g_property.items.size(), static_cast<std::size_t>(length) * 4 / width) : 0;
  *bytes_left = (g_property.items.size() - *count) * width;
  const std::size_t item_size = g_property.format == 32 ? sizeof(long) : width;
  *data = Allocate(*count * item_size);
  for (std::size_t i = 0; i < *count; ++i) {
    // On a little-endian machine the first bytes of a long are the item. Xlib extends the sign.
    const auto item = static_cast<long>(static_cast<std::int32_t>(g_property.items[i]));
    std::memcpy(*data + i * item_size, &item, item_size);
  }
  return Success;
}

int Free(void* data) {
  --g_allocated;
  std::free(data);
  return 1;
}

Property ReadProperty(qel::fuzz::FuzzedData& input) {
  constexpr Atom kTypes[] = {None, XA_CARDINAL, XA_WINDOW, XA_ATOM, XA_STRING, kUtf8, 999};
  constexpr int kFormats[] = {8, 16, 32};
  Property property;
  property.status = input.Byte() == 255 ? BadWindow : Success;
  property.type = kTypes[input.Byte() % std::size(kTypes)];
  property.format = kFormats[input.Byte() % std::size(kFormats)];
  while (!input.IsEmpty()) {
    property.items.push_back(input.Number(static_cast<std::size_t>(property.format) / 8));
  }
  return property;
}

std::string TextOf(const std::vector<std::uint32_t>& items, std::size_t limit) {
  std::string text(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(std::min(items.size(), limit)));
  return text;
}

void CheckTexts(const qel::Session& session) {
  std::string title = g_property.Has(kUtf8, 8) ? TextOf(g_property.items, 4096) : "";
  Expect(qel::GetWindowTitle(session, 1) == UpToZero(title), "the title ends at its first zero");

  const bool exists = g_property.status == Success && g_property.type != None;
  const std::optional<qel::WmClass> names = qel::ReadWmClass(session, 1);
  Expect(names.has_value() == exists, "there is a class when there is a property");
  if (names && g_property.Has(XA_STRING, 8)) {
    const std::string text = TextOf(g_property.items, 8192);
    const std::size_t first = text.find('\0');
    const std::size_t second = first == text.npos ? text.npos : text.find('\0', first + 1);
    Expect(names->instance == UpToZero(text), "the instance is the first text");
    Expect(names->class_name == (second == text.npos ? "" : text.substr(first + 1, second - first - 1)),
           "the class is the second text, when it has an end");
  } else if (names) {
    Expect(names->instance.empty() && names->class_name.empty(), "a malformed class is empty");
  }
}

void CheckNumbers(const qel::Session& session) {
  const std::vector<std::uint32_t>& items = g_property.items;
  const auto first = [&](Atom type, std::uint32_t otherwise) {
    return g_property.Has(type, 32) && !items.empty() ? items[0] : otherwise;
  };
  Expect(qel::GetWindowPid(session, 1) == static_cast<std::int32_t>(first(XA_CARDINAL, 0xFFFFFFFF)), "the process");
  Expect(qel::GetClientLeader(session, 1) == first(XA_WINDOW, 0), "the leader");
  const std::optional<Atom> type = qel::ReadWindowType(session, 1);
  Expect(type.value_or(0) == first(XA_ATOM, 0) && type.has_value() == (g_property.Has(XA_ATOM, 32) && !items.empty()),
         "the window type");
  Expect(qel::HasWmState(session, 1) == (g_property.status == Success && g_property.type != None), "the state");
  bool hidden = false;
  for (std::size_t i = 0; g_property.Has(XA_ATOM, 32) && i < items.size() && i < 1024; ++i) {
    hidden = hidden || items[i] == kHidden;
  }
  Expect(qel::IsWindowHidden(session, 1) == hidden, "the hidden state");
  Expect(qel::ReadClientList(session) == (g_property.Has(XA_WINDOW, 32) ? items : std::vector<std::uint32_t>{}),
         "the client list");
}

// Whether the icon is the one whose header is at `at`, with all its pixels. Without a position, it must be empty.
bool IsIcon(const qel::IconImage& icon, std::optional<std::size_t> at) {
  if (!at) {
    return icon.IsEmpty();
  }
  const std::vector<std::uint32_t>& items = g_property.items;
  bool same = icon.width == items[*at] && icon.height == items[*at + 1] &&
              icon.bytes.size() == std::size_t{4} * icon.width * icon.height;
  for (std::size_t i = 0; same && i < icon.bytes.size() / 4; ++i) {
    same = qel::LoadU32(icon.bytes.data() + 4 * i) == items[*at + 2 + i];
  }
  return same;
}

void CheckIcons(const qel::Session& session) {
  const std::vector<std::uint32_t>& items = g_property.items;
  std::optional<std::size_t> large;
  std::optional<std::size_t> small;
  for (std::size_t i = 0; g_property.Has(XA_CARDINAL, 32) && i + 2 <= items.size();) {
    const auto area = std::uint64_t{items[i]} * items[i + 1];
    if (i + 2 + area > items.size()) {
      break;
    }
    if (area > (large ? std::uint64_t{items[*large]} * items[*large + 1] : 0)) {
      large = i;
    }
    if (items[i] == 16 && items[i + 1] == 16) {
      small = i;
    }
    i += 2 + static_cast<std::size_t>(area);
  }
  qel::IconImage large_icon;
  qel::IconImage small_icon;
  qel::ReadWindowIcons(session, 1, large_icon, small_icon);
  Expect(IsIcon(large_icon, large), "the large icon is the largest whose pixels are all there");
  Expect(IsIcon(small_icon, small), "the small icon is the last of 16 x 16 pixels");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  g_property = ReadProperty(input);
  qel::x_api.XGetWindowProperty = GetProperty;
  qel::x_api.XFree = Free;
  qel::Session session;
  session.atoms.utf8_string = kUtf8;
  session.atoms.net_wm_state_hidden = kHidden;
  CheckTexts(session);
  CheckNumbers(session);
  CheckIcons(session);
  Expect(g_allocated == 0, "all data of the library is freed");
  return 0;
}
