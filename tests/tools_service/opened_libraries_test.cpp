// Libraries that are opened by name, and that may lack something.
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

TEST(XLibraryTest, IsOfNoUseWithoutAFunction) {
  // Opened before, it is what the loader gets for its name.
  void* const incomplete = dlopen(QEL_X_INCOMPLETE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(incomplete, nullptr) << dlerror();
  const LogCapture log(0);
  EXPECT_EQ(XLibLoad(), 1);
  EXPECT_EQ(x_api.XOpenDisplay, nullptr);
  ASSERT_EQ(log.Texts().size(), 1U);
  EXPECT_EQ(log.Texts()[0].find("Error: Could not load X function [XQueryExtension]: "), 0U) << log.Texts()[0];
  dlclose(incomplete);
  EXPECT_EQ(dlopen(QEL_X_INCOMPLETE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the loader holds it open";
}

TEST(RandRTest, NeedsVersion1Dot2) {
  static std::pair<int, int> version;
  x_api.XOpenDisplay = [](const char*) { return reinterpret_cast<Display*>(&version); };  // nobody looks inside
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

// The sanitizer sees an object that is not released, or released twice.
TEST(DriApiTest, ObjectIsObtainedOnceAndReleased) {
  for (const auto& [path, creates] : {std::pair{QEL_DRI_WITHOUT_FUNCTION, false}, {QEL_DRI_WITH_FUNCTION, true}}) {
    // DriApiInit(), which asks for a library by name, gets the one of that name that is open already.
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const bool has_object : {creates, false}) {
      EXPECT_EQ(DriApiInit(), has_object);
      EXPECT_EQ(DriApiInit(), has_object) << "asked again";
      DriApiDeinit();
      DriApiDeinit();
    }
    dlclose(library);
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still open";
  }
}

}  // namespace
}  // namespace qel
