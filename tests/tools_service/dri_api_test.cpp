#include "tools_service/dri_api.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <utility>

#include "support/log_capture.h"

namespace qel::test {
namespace {

// The sanitizer sees an object that is not released, or released twice.
TEST(DriApiTest, ObjectIsObtainedOnceAndReleased) {
  for (const auto& [path, creates] : {std::pair{QEL_DRI_WITHOUT_FUNCTION, false}, {QEL_DRI_WITH_FUNCTION, true}}) {
    // DriApiInit(), which asks for a library by name, gets the one of that name that is open already.
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const bool has_object : {creates, false}) {
      const LogCapture log;
      EXPECT_EQ(DriApiInit(), has_object);
      EXPECT_EQ(DriApiInit(), has_object) << "asked again";
      EXPECT_EQ(log.Count("Warning: DRI API unsupported"), has_object ? 0 : 1);
      DriApiDeinit();
      DriApiDeinit();
    }
    dlclose(library);
    EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still open";
  }
}

}  // namespace
}  // namespace qel::test
