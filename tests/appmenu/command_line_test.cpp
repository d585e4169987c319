#include "appmenu/command_line.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

using Texts = std::vector<std::string>;

TEST(CommandLine, Split) {
  const std::pair<const char*, Texts> cases[] = {
      {"gedit  --new-window \"my file\"", {"gedit", "--new-window", "my file"}},
      {"a \"b", {}},
      {"a \"", {}},
      {"a \"b\\\"", {}},
      {"a \"\" b ", {"a", "", "b"}},
      {"--x=\"1 2\"y", {"1 2", "y"}},
      {"\"a \\\" b\\\\\\\"\" \tc", {"a \\\" b\\\\\\\"", "\tc"}},
      {"  ", {}},
  };
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(SplitCommandLine(line), expected) << line;
  }
}

}  // namespace
}  // namespace qel
