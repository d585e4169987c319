#include "libraries/library_group.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>

#include "base/respondent.h"
#include "support/log_capture.h"

namespace qel {
namespace {

TEST(LibraryGroupTest, IsLoadedWholeOrNotAtAll) {
  const char* const library_names[] = {"libqel-none.so", "libXrandr.so.2", nullptr};
  const struct {
    const char* last_function;
    bool is_loaded;
    const char* last_line;
  } kCases[] = {
      {"XRRFreeOutputInfo", true, "Sample functions were unloaded"},
      {"XRRNone", false, "Warning: Could not load Sample function XRRNone"},
  };
  for (const auto& test : kCases) {
    const test::LogCapture log;
    const char* const function_names[] = {"XRRQueryVersion", test.last_function};
    LibraryFunction functions[2] = {};
    LibraryGroup group{"Sample", function_names, functions, 2, nullptr, library_names};
    LoadLibraryGroups(&group, 1);
    EXPECT_EQ(group.handle != nullptr, test.is_loaded);
    EXPECT_EQ(functions[0] != nullptr, test.is_loaded);
    EXPECT_EQ(functions[1] != nullptr, test.is_loaded);
    UnloadLibraryGroups(&group, 1);
    EXPECT_EQ(dlopen("libXrandr.so.2", RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still open";
    EXPECT_EQ(log.Texts().back(), test.last_line);
    EXPECT_EQ(log.Lines().back().module, "QelCCBase");
  }
}

// The last test: the open question affects the rest of the process.
TEST(LibraryGroupTest, StaysLoadedWhileAThreadMayUseIt) {
  const char* const library_names[] = {"libXrandr.so.2", nullptr};
  const char* const function_names[] = {"XRRQueryVersion"};
  LibraryFunction functions[1] = {};
  LibraryGroup group{"Sample", function_names, functions, 1, nullptr, library_names};
  LoadLibraryGroups(&group, 1);
  const auto late_question = [] { return std::this_thread::sleep_for(std::chrono::milliseconds(100)), true; };
  EXPECT_EQ(Respondent("nobody").AskWithin<bool>(std::chrono::milliseconds(1), late_question), std::nullopt);
  UnloadLibraryGroups(&group, 1);
  EXPECT_EQ(group.handle, nullptr);
  EXPECT_NE(functions[0], nullptr);
  EXPECT_NE(dlopen("libXrandr.so.2", RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
}  // namespace qel
