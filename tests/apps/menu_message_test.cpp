// The icons of the applications-menu message, more of them than it may carry.

#include "apps/menu_message.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace qel {
namespace {

TEST(MenuMessage, IconsThatDoNotFitAreLeftOutAndHarmNoOthers) {
  const test::LogCapture log(kLogWarning);
  const test::TempDir directory;
  constexpr std::size_t kLarge = (std::size_t{16} << 20) - 1024;  // four times this leaves four kibibytes
  const std::string large = directory.Write("large", "");
  std::filesystem::resize_file(large, kLarge);
  const std::string other = directory.Write("other", "");
  std::filesystem::resize_file(other, kLarge);
  const std::string file = directory.Write("file", "a desktop file");

  DesktopEntryRegistry registry;
  std::vector<MenuEntry> placements;
  const auto place = [&](const char* id, const std::string& icon, std::size_t times) {
    registry.Fill(registry.GetDesktopEntry(id), {.path = file, .name = {}, .icon = icon, .exec = {}, .categories = {}},
                  /*hidden=*/false);
    placements.insert(placements.end(), times, {.id = id, .menu_path = "/Apps"});
  };
  place("large", large, 5);
  place("other", other, 1);
  place("small", directory.Write("small", "icon"), 2);

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
  EXPECT_GT(sent, 4 * kLarge);
  EXPECT_LT(sent, 4 * kLarge + 4096);
  EXPECT_EQ(end, "icon");
  const auto warning = [](const std::string& path) {
    return "Warning: The icons of the applications menu are too large, '" + path + "' is left out";
  };
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{warning(large), warning(other)}));
}

}  // namespace
}  // namespace qel
