#include "apps/window_property.h"

namespace qel {

WindowProperty::WindowProperty(const Session& session, Window window, Atom property, Atom type, long length) {
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
  type_ = actual_type;
  if (data == nullptr || (type != AnyPropertyType && actual_type != type)) {
    return;
  }
  format_ = format;
  count_ = count;
}

std::string_view WindowProperty::Bytes() const {
  if (format_ != 8) {
    return {};
  }
  return {static_cast<const char*>(static_cast<const void*>(data_.get())), count_};
}

}  // namespace qel
