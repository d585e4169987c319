// Key files with any content, compared with a simple reader.
#include <cstddef>
#include <cstdint>
#include <string>

#include "files/key_file.h"
#include "files/paths.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"
#include "support/plain_key_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using qel::fuzz::Expect;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const qel::KeyFileValues wanted{
      {"Desktop Entry", {{"Name", "-"}, {"Exec", ""}, {"NoDisplay", ""}, {"Categories", ""}, {"X-Long-Key", ""}}},
      {"", {{"Name", "-"}}}};

  qel::KeyFileValues values = wanted;
  {
    qel::fuzz::FileTree tree;
    tree.AddFile("/a.desktop", text);
    qel::ReadKeyFile("/a.desktop", values);
    // With this key, which is an expression, every line is looked at; otherwise only those with certain characters.
    if (size % 4 == 0) {
      qel::KeyFileValues by_line = wanted;
      by_line["Desktop Entry"]["\\(none"] = "";
      qel::ReadKeyFile("/a.desktop", by_line);
      by_line["Desktop Entry"].erase("\\(none");
      Expect(by_line == values, "an expression among the keys changes no other value");
    }
  }
  qel::KeyFileValues expected = wanted;
  qel::fuzz::ReadKeyFilePlainly(text, expected);
  Expect(values == expected, "the simple reader finds the same values");

  for (const auto& [key, value] : values["Desktop Entry"]) {
    std::string joined;
    for (const std::string& field : qel::SplitString(value, ';')) {
      Expect(field.find(';') == field.npos, "a field has no delimiter");
      joined += field + ';';
    }
    Expect(joined == value || joined == value + ';', "the fields are the text");
    const std::string normal = qel::NormalizePath(value);
    Expect(normal == value || qel::NormalizePath(normal) == normal, "a normal path stays as it is");
  }
  return 0;
}
