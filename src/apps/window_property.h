// The one place where a property of a window is fetched and its data are taken apart.
//
// Every program can give its windows properties of any type, format and length, and windows vanish between two calls:
// what does not look as asked for reads as nothing.
#pragma once

#include <X11/Xlib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "apps/session.h"
#include "tools_service/x_library.h"

namespace qel {

class WindowProperty {
 public:
  // As a length: the whole property.
  static constexpr long kAll = static_cast<long>(UINT32_MAX);

  // Fetches the first `length` 32-bit units of the property, with one round trip. `type` is the type asked for;
  // AnyPropertyType takes any.
  WindowProperty(const Session& session, Window window, Atom property, Atom type, long length);

  // The window has the property, whatever its type.
  bool Exists() const { return type_ != None; }

  // Items of a property of the type asked for and of format 32; none of any other.
  std::size_t ItemCount() const { return format_ == 32 ? count_ : 0; }
  // `index` is below ItemCount(). Xlib hands out each 32-bit item in a long, whatever the size of a long.
  std::uint32_t Item(std::size_t index) const {
    unsigned long item = 0;
    std::memcpy(&item, data_.get() + index * sizeof item, sizeof item);
    return static_cast<std::uint32_t>(item);
  }

  // The bytes of a property of the type asked for and of format 8; none of any other.
  std::string_view Bytes() const;

 private:
  std::unique_ptr<unsigned char, XFreeDeleter> data_;
  Atom type_ = None;
  int format_ = 0;         // 0 when the property is not of the type asked for
  std::size_t count_ = 0;  // items fetched
};

}  // namespace qel
