#include "tools_gate/text_conversion.h"

#include <fcntl.h>
#include <iconv.h>
#include <langinfo.h>
#include <locale.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "base/file_descriptor.h"
#include "base/owner.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr const char* kUtf16 = "UTF-16LE";
constexpr const char* kDefaultLocale = "C";

// The name of the locale for characters (LC_CTYPE) in the environment.
const char* LocaleName() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    if (const char* value = std::getenv(variable); value != nullptr && *value != '\0') {
      return value;
    }
  }
  return kDefaultLocale;
}

// Why no file can be opened just now, an errno value; 0 when files can be. What newlocale() and iconv_open() cannot
// open, the C library takes for missing as long as the process lives: the archive of locales, a locale's own file, the
// list of character sets. So they are not called in such a moment. Nothing can be done about a file that it could not
// open for want of memory, or because another thread took the last descriptors in between.
int ErrorOfOpeningFiles() {
  constexpr std::size_t kEnough = 4;  // a file in a folder that is being read, and some for other threads
  std::array<FileDescriptor, kEnough> opened;
  for (FileDescriptor& file : opened) {
    file = FileDescriptor(open("/", O_PATH | O_CLOEXEC));
    if (!file.IsOpen()) {
      return errno;
    }
  }
  return 0;
}

// Finds the character set of a locale; for a locale that is not installed, that of the default locale. Returns whether
// the result may be kept: false when the search failed because there was no free descriptor or no memory.
bool LookUpCodeset(const char* locale_name, std::string& codeset) {
  locale_t locale{};
  int error = ErrorOfOpeningFiles();
  if (error == 0) {
    errno = 0;
    locale = newlocale(LC_CTYPE_MASK, locale_name, locale_t{});
    error = errno;
  }
  const bool keep = locale != locale_t{} || (error != EMFILE && error != ENFILE && error != ENOMEM);
  if (locale == locale_t{}) {
    locale = newlocale(LC_CTYPE_MASK, kDefaultLocale, locale_t{});  // built in
  }
  codeset.clear();
  if (locale != locale_t{}) {
    codeset = nl_langinfo_l(CODESET, locale);
    freelocale(locale);
  }
  return keep;
}

// One iconv descriptor.
class Iconv {
 public:
  // Opens the descriptor unless it is open. Returns false when iconv does not know the character sets, or when no file
  // can be opened at the moment.
  bool Open(const char* to, const char* from) {
    if (handle_ == nullptr && ErrorOfOpeningFiles() == 0) {
      const iconv_t opened = iconv_open(to, from);
      handle_.reset(opened != kFailed ? opened : nullptr);
    }
    return handle_ != nullptr;
  }

  void Close() { handle_.reset(); }

  // Converts as much of `from` as possible to `to`. Returns the number of bytes written. `error` is 0 or an errno
  // value.
  std::size_t Convert(std::span<const std::byte> from, std::span<std::byte> to, int& error) {
    char* input = reinterpret_cast<char*>(const_cast<std::byte*>(from.data()));  // iconv() does not write to it
    char* output = reinterpret_cast<char*>(to.data());
    std::size_t input_left = from.size();
    std::size_t output_left = to.size();
    iconv(handle_.get(), nullptr, nullptr, nullptr, nullptr);
    error =
        iconv(handle_.get(), &input, &input_left, &output, &output_left) == static_cast<std::size_t>(-1) ? errno : 0;
    return to.size() - output_left;
  }

 private:
  inline static const iconv_t kFailed = reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)

  Owner<void, iconv_close> handle_;
};

// The converters of a thread. Finding a locale and opening a converter reads files, and every window has texts to
// convert. So both are kept until the environment names another locale. After a failure the next text tries again.
class Converters {
 public:
  // Applies a change of the environment. Must be called before the other functions.
  void Update() {
    const char* const name = LocaleName();
    if (locale_name_ != name) {
      to_utf16_.Close();
      from_utf16_.Close();
      locale_name_.clear();
      if (LookUpCodeset(name, codeset_)) {
        locale_name_ = name;
      }
    }
  }

  const char* Codeset() const { return codeset_.c_str(); }

  // Null when the converter cannot be opened.
  Iconv* ToUtf16() { return to_utf16_.Open(kUtf16, Codeset()) ? &to_utf16_ : nullptr; }
  Iconv* FromUtf16() { return from_utf16_.Open(Codeset(), kUtf16) ? &from_utf16_ : nullptr; }

 private:
  std::string locale_name_;
  std::string codeset_;
  Iconv to_utf16_;
  Iconv from_utf16_;
};

thread_local Converters t_converters;

}  // namespace

void TextToUtf16(std::span<std::byte> destination, std::string_view text) {
  try {
    t_converters.Update();
  } catch (const std::bad_alloc&) {
    LogError(kModuleAgent, "Error: Not enough memory");
    return;
  }
  Iconv* const iconv = t_converters.ToUtf16();
  if (iconv == nullptr) {
    LogError(kModuleAgent, "Error: Failed to initialize iconv %s -> UTF-16", t_converters.Codeset());
    return;
  }
  int error = 0;
  const std::size_t written = iconv->Convert(std::as_bytes(std::span(text)), destination, error);
  std::ranges::fill(destination.subspan(written), std::byte{0});
  if (error != 0) {
    LogError(kModuleAgent, "Error: Failed to convert %s -> UTF-16: %s", t_converters.Codeset(), std::strerror(error));
  }
}

std::string TextFromUtf16(std::span<const std::byte> bytes) {
  try {
    t_converters.Update();
    Iconv* const iconv = t_converters.FromUtf16();
    if (iconv == nullptr) {
      LogError(kModuleAgent, "Error: Failed to initialize iconv UTF-16 -> %s", t_converters.Codeset());
      return {};
    }
    std::string text(bytes.size() * 2, '\0');
    int error = 0;
    text.resize(iconv->Convert(bytes, std::as_writable_bytes(std::span(text)), error));
    if (error != 0) {
      LogError(kModuleAgent, "Error: Failed to convert UTF-16 -> %s: %s", t_converters.Codeset(), std::strerror(error));
    }
    text.resize(std::strlen(text.c_str()));
    return text;
  } catch (const std::exception&) {
    LogError(kModuleAgent, "Error: Not enough memory");
    return {};
  }
}

}  // namespace qel
