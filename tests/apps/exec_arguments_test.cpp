#include "apps/exec_arguments.h"

#include <gtest/gtest.h>

namespace qel::test {
namespace {

TEST(ExecArguments, FollowsEveryRule) {
  const struct {
    const char *exec, *document;
    std::vector<std::string> expected;
  } rows[] = {
      {"gedit %U", "", {"gedit"}},
      {"view %f %F %u", "/a", {"view", "/a"}},
      {"view %d %D %n %N %i %k %m %v --end", "/a", {"view", "--end"}},
      {"view --file=%f x%f %fx", "/a", {"view", "--file=%f", "x%f", "%fx"}},
      {"view %x %1 %", "/a", {"view", "%x", "%1", "%"}},
      {"view %c", "", {"view", "view"}},
      {"%i %c view", "", {"%c", "view"}},
      {"%i view %c", "", {"view", "view"}},
      {"view 100%% %%%% %%f", "/a", {"view", "100%", "%%", "/a"}},
      {R"(view \s \t a\sb \\ \n c\)", "", {"view", " ", "\t", "a b", "\\", "n", "c\\"}},
      {R"("my prog" "a \"quoted\" word" "" end)", "", {"my prog", "a \"quoted\" word", "", "end"}},
      {R"(view \%f)", "/a", {"view", "/a"}},
      // No program, and never the document in its place.
      {"%U", "/a", {}},
      {"%i %f view", "/a", {}},
      {"%f view", "", {"view"}},
      {"%i %k", "/a", {}},
      {"view \"open", "/a", {}},
      {"", "/a", {}},
  };
  for (const auto& line : rows) {
    EXPECT_EQ(ExecArguments(line.exec, line.document), line.expected) << line.exec << " with '" << line.document << "'";
  }
}

}  // namespace
}  // namespace qel::test
