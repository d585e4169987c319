#include "files/paths.h"

#include <algorithm>
#include <cstdlib>

namespace qel {
namespace {

std::vector<std::string> DirectoryList(const char* variable, std::vector<std::string> defaults) {
  const char* value = std::getenv(variable);
  return value != nullptr ? SplitString(value, ':') : std::move(defaults);
}

}  // namespace

std::vector<std::string> SplitString(std::string_view text, char delimiter) {
  std::vector<std::string> fields;
  fields.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), delimiter)) + 1);
  ForEachField(text, delimiter, [&](std::string_view field) { fields.emplace_back(field); });
  return fields;
}

std::vector<std::string> GetConfigDirs() {
  return DirectoryList("XDG_CONFIG_DIRS", {"/etc/xdg"});
}

std::vector<std::string> GetDataDirs() {
  return DirectoryList("XDG_DATA_DIRS", {"/usr/local/share", "/usr/share"});
}

std::string DirName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return ".";
  }
  return std::string(slash == 0 ? path.substr(0, 1) : path.substr(0, slash));
}

std::string BaseNameNoExt(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);  // npos + 1 is 0
  return std::string(path.substr(0, path.rfind('.')));
}

std::string NormalizePath(std::string_view path) {
  std::string result;
  result.reserve(path.size() + 1);
  std::vector<std::size_t> starts;  // where each component begins in `result`, with its "/"
  for (std::size_t begin = 0; begin < path.size();) {
    std::size_t end = path.find('/', begin);
    while (end != std::string_view::npos && end > begin && path[end - 1] == '\\') {
      end = path.find('/', end + 1);
    }
    end = end == std::string_view::npos ? path.size() : end;
    const std::string_view component = path.substr(begin, end - begin);
    begin = end + 1;
    if (component.empty() || component == ".") {
      continue;
    }
    if (component == "..") {
      if (starts.empty()) {
        return std::string(path);
      }
      result.resize(starts.back());
      starts.pop_back();
      continue;
    }
    starts.push_back(result.size());
    result.append("/").append(component);
  }
  return result;
}

}  // namespace qel
