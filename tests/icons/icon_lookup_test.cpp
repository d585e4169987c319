// Icon files are found and read. The samples of the fuzz target "icon_lookup" search for many names at once.
#include "icons/icon_lookup.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

namespace fs = std::filesystem;
using test::LogCapture;
using testing::ElementsAre;

class IconLookupTest : public testing::Test {
 protected:
  std::string In(const std::string& path) const { return dir_.Path().string() + "/" + path; }
  // Adds a file that contains its own path.
  void Add(const std::string& path) { dir_.Write(path, path); }

  test::TempDir dir_;
  test::ScopedEnvironment environment_{{{"HOME", std::nullopt}, {"XDG_DATA_DIRS", In("data")}}};
};

TEST_F(IconLookupTest, TheFirst256SizesOfAThemeAreSearched) {
  for (int size = 1; size <= 257; ++size) {
    fs::create_directories(In("many/") + std::to_string(size));
  }
  Add("many/5@2/x");  // the same size as "5", so it is not counted
  Add("many/256/apps/i.png");
  Add("many/257/apps/i.png");
  Add("many/257/apps/late.png");
  EXPECT_EQ(IconFinder::FindIconInTheme(In("many"), "i"), In("many/256/apps/i.png"));
  EXPECT_EQ(IconFinder::FindIconInTheme(In("many"), "late"), "") << "only 256 sizes are searched";
  const LogCapture log;
  EXPECT_EQ(IconFinder::FindIconInTheme(In("missing"), "i"), "");
  EXPECT_THAT(log.Texts(), ElementsAre("Error: Failed to open directory '" + In("missing") + "'"));
}

TEST_F(IconLookupTest, OnlyRegularFilesUpTo16MiBAreRead) {
  dir_.Write("empty.png", "");
  const std::string fifo = In("fifo.png");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  fs::create_directories(In("folder.png"));
  fs::resize_file(dir_.Write("limit.png", "x"), 16 << 20);
  fs::resize_file(dir_.Write("huge.png", "x"), (16 << 20) + 1);
  const LogCapture log;
  const IconThemes themes;
  const IconFinder finder(themes);
  for (const std::string& path :
       {In("empty.png"), fifo, In("folder.png"), std::string("/dev/zero"), In("huge.png"), In("missing.png")}) {
    EXPECT_TRUE(finder.LoadIconFile(path, "empty").empty()) << path;
  }
  EXPECT_THAT(log.Texts(), ElementsAre("Warning: Icon file '" + In("huge.png") + "' is too large: 16777217 bytes",
                                       "Failed to open icon file"));
  EXPECT_EQ(finder.LoadIconFile(In("limit.png"), "").size(), std::size_t{16} << 20);
}

}  // namespace
}  // namespace qel
