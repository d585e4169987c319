// Key files with any content. They are read for the keys of a desktop entry, and for a key that is a regular
// expression.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "appmenu/command_line.h"
#include "files/key_file.h"
#include "files/paths.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int file = memfd_create("key file", MFD_CLOEXEC);
  if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  qel::KeyFileValues values{{"Desktop Entry", {{"Name", ""}, {"Exec", ""}, {"NoDisplay", ""}, {"Categories", ""}}},
                            {"Icon Theme", {{"Na.*e", ""}}}};
  // With such a key every line is checked. The results for the other keys must be the same.
  qel::KeyFileValues by_line = values;
  by_line["Desktop Entry"]["\\(none"] = "";
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  qel::ReadKeyFile(path, values);
  qel::ReadKeyFile(path, by_line);
  by_line["Desktop Entry"].erase("\\(none");
  if (by_line["Desktop Entry"] != values["Desktop Entry"]) {
    std::abort();
  }
  for (const auto& [key, value] : values["Desktop Entry"]) {
    if (value.size() > 4095 || value.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) {
      std::abort();
    }
    qel::SplitCommandLine(value);
    qel::SplitString(value, ';');
    qel::NormalizePath(value);
  }
  return 0;
}
