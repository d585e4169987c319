// The installed GLib libraries, with some or all of their groups loaded.
#include "desktop/glib_api.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace qel {
namespace {

std::vector<GLibGroup> Available() {
  std::vector<GLibGroup> groups;
  for (std::uint32_t group = 0; group < 40; ++group) {
    if (IsGLibGroupAvailable(static_cast<GLibGroup>(group))) {
      groups.push_back(static_cast<GLibGroup>(group));
    }
  }
  return groups;
}

TEST(GLibApiTest, GroupsNeedOthers) {
  using enum GLibGroup;
  const struct {
    std::uint32_t mask;
    std::vector<GLibGroup> available;
  } kCases[] = {
      {0x013, {kBase, kGObject}},  // GSettings without GVariant
      {0x023, {kBase, kGObject}},  // GDBus without GVariant
      {0x043, {kBase, kGObject, kGVfs}},
      {0x07A, {}},  // without "GLib Base" all groups are unloaded
      {0x07D, {}},  // the same without "GObject"
  };
  for (const auto& test : kCases) {
    const test::LogCapture log(0);
    GLibApiInit(test.mask);
    EXPECT_EQ(Available(), test.available) << std::hex << test.mask;
    if (!test.available.empty()) {
      const test::LogCapture second_log(0);
      GLibApiInit(0x01B);  // a second call changes nothing
      EXPECT_EQ(Available(), test.available);
      EXPECT_TRUE(second_log.Texts().empty());
    }
    EXPECT_EQ(log.Count("Error: Can't initialize GLib API"), test.available.empty() ? 1 : 0) << std::hex << test.mask;
    GLibApiDeinit();
    EXPECT_EQ(Available(), std::vector<GLibGroup>());
  }
}

}  // namespace
}  // namespace qel
