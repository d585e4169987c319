#include "host/bytes.h"

#include <cstdarg>
#include <cstdio>

namespace qel::host {

std::string Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  // vsnprintf() writes its terminating NUL over the string's own.
  if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

}  // namespace qel::host
