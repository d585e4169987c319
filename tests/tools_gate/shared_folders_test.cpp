#include "tools_gate/shared_folders.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace qel {
namespace {

using Status = SharedFolderStatus;

TEST(SharedFoldersTest, Resolves) {
  const std::string long_point = "/" + std::string(4089, 'm');
  const test::TempDir directory;
  const std::string mounts = directory.Write(
      "mounts",
      "proc /proc proc rw 0 0\nHome /wrong ext4 rw 0 0\nshort\ntwo fields\n\nHomeWork /media/work qel_fs rw 0 0\nHome "
      "\t /media/share/Home\tqel_fs rw 0 0\nMy\\040Docs /media/my\\040docs\\134x qel_fs\nLong " +
          long_point + " qel_fs rw 0 0\nLonger " + long_point + "123456 qel_fs rw 0 0\nLast /media/last qel_fs");
  struct Case {
    std::string path;
    std::string expected;
    Status status = Status::kResolved;
  };
  for (const Case& c : std::initializer_list<Case>{
           {"//mac/Home/a", "//mac/Home/a"},
           {std::string(4095, 'x'), std::string(4095, 'x')},
           {std::string(4096, 'x'), "", Status::kTooLong},
           // The first qel_fs mount whose device name begins with the name of the share.
           {"//Mac/Home/Documents/a.txt", "/media/work/Documents/a.txt"},
           {"//.qsf/HomeW/", "/media/work/"},
           {"//Mac/", "/media/work"},
           {"//Mac/My Docs/b", "/media/my docs\\x/b"},
           {"//Mac/None/a", "", Status::kNotResolved},
           {"//Mac/Long/12345", "", Status::kTooLong},
           {"//Mac/Long/1234", long_point + "/1234"},
           {"//Mac/Longer/a", "", Status::kNotResolved},
           {"//Mac/Last/" + std::string(5000, 'x'), "", Status::kTooLong},
       }) {
    std::vector<char> out(4096, '!');
    ASSERT_EQ(ResolveSharedFolderPath(out, c.path.c_str(), mounts.c_str()), c.status) << c.path;
    if (c.status == Status::kResolved) {
      EXPECT_EQ(std::string(out.data()), c.expected);
    }
  }
  std::vector<char> out(4096);
  EXPECT_EQ(ResolveSharedFolderPath(out, "//Mac/Home", (directory.Path() / "none").c_str()), Status::kNotResolved);
  EXPECT_EQ(ResolveSharedFolderPath({}, "", mounts.c_str()), Status::kTooLong);
}

TEST(SharedFoldersTest, DecodesEscapesWithinTheField) {
  for (const auto& [text, expected] :
       std::vector<std::pair<std::string, std::string>>{{"a\\011b\\012\\134\\040c", "a\tb\n\\ c"},
                                                        {"\\04", "\\04"},
                                                        {"\\zzz", std::string(1, static_cast<char>(74 * 73))}}) {
    std::vector<char> field(text.c_str(), text.c_str() + text.size() + 1);  // no spare byte, for the sanitizer
    UnescapeMountField(field.data(), field.size());
    EXPECT_EQ(std::string(field.data()), expected);
  }
}

}  // namespace
}  // namespace qel
