#include "tools_service/dri_api.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "tools_service/drm_object.h"

namespace qel::test {
namespace {

// A library that is open already; DriApiInit(), which asks for one by name, then gets the one of that name.
void* Open(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(library, nullptr) << dlerror();
  return library;
}

// Closes it and checks that nobody else has it open.
void Close(void* library, const char* path) {
  dlclose(library);
  EXPECT_EQ(dlopen(path, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST(DriApiTest, ObjectIsObtainedOnceAndReleasedOnce) {
  void* const library = Open(QEL_DRI_WITH_FUNCTION);
  const auto created = reinterpret_cast<int (*)()>(dlsym(library, "DrmObjectsCreated"));
  const auto deleted = reinterpret_cast<int (*)()>(dlsym(library, "DrmObjectsDeleted"));
  const LogCapture log;
  for (int round = 1; round <= 2; ++round) {
    EXPECT_TRUE(DriApiInit() && DriApiInit());
    EXPECT_EQ(created(), round);
    EXPECT_EQ(deleted(), round - 1);
    DriApiDeinit();
    DriApiDeinit();
    EXPECT_EQ(deleted(), round);
  }
  EXPECT_EQ(log.Texts().size(), 4U);
  EXPECT_FALSE(DriApiInit() || DriApiInit()) << "there is no object any more";
  DriApiDeinit();
  EXPECT_EQ(log.Count("Warning: DRI API unsupported"), 1);
  EXPECT_EQ(log.Texts().size(), 5U);
  Close(library, QEL_DRI_WITH_FUNCTION);
}

TEST(DriApiTest, WithoutLibraryAndWithoutFunction) {
  const LogCapture log;
  EXPECT_FALSE(DriApiInit() || DriApiInit());
  DriApiDeinit();
  void* const library = Open(QEL_DRI_WITHOUT_FUNCTION);
  EXPECT_FALSE(DriApiInit());
  DriApiDeinit();
  EXPECT_EQ(log.Texts(), std::vector<std::string>(2, "Warning: DRI API unsupported"));
  Close(library, QEL_DRI_WITHOUT_FUNCTION);
}

// The library that stands in for the maker's: an object holds its device open until its last reference is gone.
TEST(DriApiTest, StandIn) {
  void* const library = Open(QEL_DRI_STAND_IN);
  const auto create = reinterpret_cast<QelVTG* (*)(const char*)>(dlsym(library, "QelDRMCreateNamed"));
  EXPECT_EQ(create("/nowhere/card0"), nullptr);
  const int next = dup(STDERR_FILENO);
  close(next);
  QelVTG* const object = create("/dev/null");
  object->LibrarySlot3();  // another reference
  object->DecRef();
  EXPECT_NE(fcntl(next, F_GETFD), -1);
  object->DecRef();
  EXPECT_EQ(fcntl(next, F_GETFD), -1);
  Close(library, QEL_DRI_STAND_IN);
}

}  // namespace
}  // namespace qel::test
