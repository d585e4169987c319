// Paths of shared folders and mount tables: the input is the size of the output, the path up to a newline, and the
// table.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/fuzzed_data.h"
#include "tools_gate/shared_folders.h"

namespace {

using qel::SharedFolderStatus;
using qel::fuzz::Expect;
using qel::fuzz::UpToZero;
using qel::fuzz::Words;

struct Resolved {
  SharedFolderStatus status;
  std::string path;
};

std::string Decoded(const std::string& field) {
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\') {
      text += field[i];
    } else if (field.size() - i < 4) {
      text += field.substr(i);
      break;
    } else {
      text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    }
  }
  return UpToZero(text);
}

Resolved ResolvePlainly(std::size_t size, const std::string& path, const std::string& table) {
  const std::string prefix = path.starts_with("//.qsf/") ? "//.qsf/" : "//Mac/";
  if (!path.starts_with(prefix)) {
    return {path.size() < size ? SharedFolderStatus::kResolved : SharedFolderStatus::kTooLong, path};
  }
  const std::size_t slash = std::min(path.find('/', prefix.size()), path.size());
  const std::string share = path.substr(prefix.size(), slash - prefix.size());
  const std::string rest = path.substr(slash);
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> fields = Words(UpToZero(line));
    if (fields.size() < 3 || fields[2] != "qel_fs" || !Decoded(fields[0]).starts_with(share)) {
      continue;
    }
    const std::string mount_point = Decoded(fields[1]);
    if (mount_point.size() >= size) {
      return {SharedFolderStatus::kNotResolved, ""};
    }
    const std::string whole = mount_point + rest;
    return {rest.empty() || whole.size() < size ? SharedFolderStatus::kResolved : SharedFolderStatus::kTooLong, whole};
  }
  return {SharedFolderStatus::kNotResolved, ""};
}

void CheckUnescape(const std::string& text) {
  const std::size_t length = text.size() + 1;
  const std::unique_ptr<char[]> memory(new char[length]);
  std::memcpy(memory.get(), text.c_str(), length);
  qel::UnescapeMountField(memory.get(), length);
  Expect(memory.get() == Decoded(text), "a field is decoded in its place");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const std::size_t out_size = input.Byte() * 4U;
  const std::string path = UpToZero(input.Text('\n'));
  const std::string table = input.Rest();
  qel::fuzz::FileTree tree;
  if (!table.empty()) {
    tree.AddFile("/proc/mounts", table);
  }
  const std::unique_ptr<char[]> out(new char[out_size]);
  const Resolved expected = ResolvePlainly(out_size, path, table);
  Expect(qel::ResolveSharedFolderPath({out.get(), out_size}, path.c_str()) == expected.status, "the status");
  Expect(expected.status != SharedFolderStatus::kResolved || out.get() == expected.path, "the path");
  CheckUnescape(path);
  return 0;
}
