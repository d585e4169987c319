// An applications menu with more icons and texts than fit into its message.

#include "apps/menu_message.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

TEST(MenuMessage, LeavesOutOnlyWhatDoesNotFit) {
  const test::LogCapture log(kLogWarning);
  const test::TempDir directory;
  constexpr std::size_t kLarge = (std::size_t{16} << 20) - 1024;  // after four of these, 4 KiB are left for icons
  DesktopEntryRegistry registry;
  std::vector<MenuEntry> placements;
  // Adds menu entries. Returns the warning that is expected if their icon is left out.
  const auto place = [&](const char* id, std::size_t times, std::size_t size, std::string_view name = {}) {
    const std::string icon = directory.Write(id, "icon");
    std::filesystem::resize_file(icon, size);
    registry.Fill(registry.GetDesktopEntry(id),
                  {.path = icon, .name = name, .icon = icon, .exec = {}, .categories = {}},
                  /*hidden=*/false);
    placements.insert(placements.end(), times, {.id = id, .menu_path = "/Apps"});
    return "Warning: The icons of the applications menu are too large, '" + icon + "' is left out";
  };
  std::vector<std::string> warnings{place("large", 5, kLarge), place("other", 1, kLarge)};
  const std::string name(std::size_t{50} << 20, 'n');  // after two of these, 28 MiB are left for texts
  place("named", 4, 0, name);
  warnings.push_back("Warning: The applications menu has too many entries with long texts, left out at '" +
                     (directory.Path() / "named").string() + "'");
  place("small", 2, 4);

  std::size_t sent = 0;
  std::string end;
  const GuestCommands commands([&](TgRequest& request) {
    const TgBuffer& block = request.buffers[0];
    sent = block.size;
    end.assign(reinterpret_cast<const char*>(block.data) + block.size - 4, 4);
    return true;
  });
  const IconThemes themes;
  SendApplicationsMenu(commands, registry, IconFinder(themes), MenuEntries({}, std::move(placements)));
  EXPECT_GT(sent, 4 * kLarge + 2 * name.size());
  EXPECT_LT(sent, 4 * kLarge + 2 * name.size() + 4096);
  EXPECT_EQ(end, "icon");
  EXPECT_EQ(log.Texts(), warnings);
}

}  // namespace
}  // namespace qel
