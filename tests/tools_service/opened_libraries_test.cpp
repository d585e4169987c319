// Libraries that are opened by name and may be incomplete.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "support/log_capture.h"
#include "tools_service/dri_api.h"
#include "tools_service/randr_api.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

using test::LogCapture;

TEST(XLibraryTest, IsNotUsedIfAFunctionIsMissing) {
  // The library is already open, so the loader uses it for this name.
  void* const incomplete = dlopen(QEL_X_INCOMPLETE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(incomplete, nullptr) << dlerror();
  const LogCapture log(0);
  EXPECT_EQ(XLibLoad(), 1);
  EXPECT_EQ(x_api.XOpenDisplay, nullptr);
  ASSERT_EQ(log.Texts().size(), 1U);
  EXPECT_EQ(log.Texts()[0].find("Error: Could not load X function [XQueryExtension]: "), 0U) << log.Texts()[0];
  dlclose(incomplete);
  EXPECT_EQ(dlopen(QEL_X_INCOMPLETE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "XLibLoad() has not closed the library";
}

TEST(RandRTest, NeedsVersion1Dot2) {
  static std::pair<int, int> version;
  x_api.XOpenDisplay = [](const char*) { return reinterpret_cast<Display*>(&version); };  // any pointer, never used
  x_api.XCloseDisplay = [](Display*) { return 0; };
  x_api.XQueryExtension = [](Display*, const char*, int*, int*, int*) { return True; };
  x_api.XRRQueryExtension = [](Display*, int*, int*) { return True; };
  x_api.XRRQueryVersion = [](Display*, int* major, int* minor) {
    std::tie(*major, *minor) = version;
    return 1;
  };
  for (const auto& [major, minor, is_enough] : {std::tuple(0, 9, false), {1, 1, false}, {1, 2, true}, {2, 0, true}}) {
    version = {major, minor};
    const LogCapture log;
    RandR12Init();
    EXPECT_EQ(log.Contains("RandR 1.2 initialized"), is_enough) << major << '.' << minor;
    RandR12Deinit();
  }
  x_api = {};
}

// The sanitizer reports an object that is not released, or released twice.
TEST(DriApiTest, ObjectIsObtainedOnceAndReleased) {
  for (const auto& [path, creates] : {std::pair{QEL_DRI_WITHOUT_FUNCTION, false}, {QEL_DRI_WITH_FUNCTION, true}}) {
    // The library is already open, so DriApiInit() uses it for this name.
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const bool has_object : {creates, false}) {
      EXPECT_EQ(DriApiInit(), has_object);
      EXPECT_EQ(DriApiInit(), has_object) << "the second call";
      DriApiDeinit();
      DriApiDeinit();
    }
    dlclose(library);
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still open";
  }
}

}  // namespace
}  // namespace qel
