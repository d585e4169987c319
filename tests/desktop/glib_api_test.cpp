// The GLib family as it is installed, loaded in part and as a whole.
#include "desktop/glib_api.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace qel {
namespace {

using test::LogCapture;

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
      {0x01B, {kBase, kGObject, kGVariant, kGSettings}},
      {0x023, {kBase, kGObject}},  // GDBus without GVariant
      {0x043, {kBase, kGObject, kGVfs}},
      {0x07A, {}},  // without "GLib Base" the family is unloaded
      {0x07D, {}},  // and without "GObject"
  };
  for (const auto& test : kCases) {
    const LogCapture log(0);
    GLibApiInit(test.mask);
    EXPECT_EQ(Available(), test.available) << std::hex << test.mask;
    EXPECT_EQ(log.Count("Error: Can't initialize GLib API"), test.available.empty() ? 1 : 0) << std::hex << test.mask;
    GLibApiDeinit();
    EXPECT_EQ(Available(), std::vector<GLibGroup>());
  }
}

TEST(GLibApiTest, LoadsWhatTheProgramAsksForOnce) {
  const LogCapture log;
  GLibApiInit(0xFFFFFE7F);
  EXPECT_EQ(log.Count("GLib API initialized"), 1);
  EXPECT_TRUE(IsGLibGroupAvailable(GLibGroup::kGVfs));
  // GConf may be missing; then the log says so, and the rest works.
  EXPECT_EQ(log.Contains("Warning: Could not load GConf library"), !IsGLibGroupAvailable(GLibGroup::kGConf));
  EXPECT_FALSE(log.Contains("Try libgtk-3.so.0 for GTK library..."));

  const LogCapture second_log;
  GLibApiInit(0x180);
  EXPECT_TRUE(second_log.Texts().empty());
  GLibApiDeinit();
  GLibApiDeinit();
  EXPECT_EQ(second_log.Count("GLib API deinitialized"), 1);
}

}  // namespace
}  // namespace qel
