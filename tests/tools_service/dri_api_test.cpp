#include "tools_service/dri_api.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include "support/log_capture.h"
#include "tools_service/drm_object.h"

namespace qel::test {
namespace {

// Opens one of the libraries. DriApiInit(), which asks for a library by name, then gets the one of that name that is
// open already.
class OpenLibrary {
 public:
  explicit OpenLibrary(const char* path) : path_(path), handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(handle_, nullptr) << dlerror();
  }
  ~OpenLibrary() {
    if (handle_ != nullptr) {
      dlclose(handle_);
    }
    void* still_open = dlopen(path_, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still_open, nullptr) << "somebody has not closed it";
  }
  OpenLibrary(const OpenLibrary&) = delete;
  OpenLibrary& operator=(const OpenLibrary&) = delete;

  template <typename Function>
  Function* Find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  const char* path_;
  void* handle_;
};

// How many descriptors of this process refer to a file.
long OpenDescriptors(const std::string& file) {
  long count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(entry.path(), gone) == file ? 1 : 0;
  }
  return count;
}

constexpr const char* kUnsupported = "Warning: DRI API unsupported";

TEST(DriApiTest, ObjectIsObtainedOnceAndReleasedOnce) {
  const OpenLibrary library(QEL_DRI_WITH_FUNCTION);
  const auto created = library.Find<int()>("DrmObjectsCreated");
  const auto deleted = library.Find<int()>("DrmObjectsDeleted");
  const LogCapture log;
  for (int round = 1; round <= 2; ++round) {
    EXPECT_TRUE(DriApiInit());
    EXPECT_TRUE(DriApiInit());
    EXPECT_EQ(created(), round);
    EXPECT_EQ(deleted(), round - 1);
    DriApiDeinit();
    DriApiDeinit();
    EXPECT_EQ(deleted(), round);
  }
  EXPECT_EQ(log.Count("DRI API initialized"), 2);
  EXPECT_EQ(log.Count("DRI API deinitialized"), 2);
}

TEST(DriApiTest, WithoutLibraryOrFunction) {
  for (const char* path : {static_cast<const char*>(nullptr), QEL_DRI_WITHOUT_FUNCTION}) {
    SCOPED_TRACE(path != nullptr ? path : "no library");
    const auto library = path != nullptr ? std::make_unique<OpenLibrary>(path) : nullptr;
    const LogCapture log;
    EXPECT_FALSE(DriApiInit());
    EXPECT_FALSE(DriApiInit());
    EXPECT_EQ(log.Count(kUnsupported), 1);
    DriApiDeinit();
    EXPECT_FALSE(DriApiInit());
    EXPECT_EQ(log.Count(kUnsupported), 2);
    DriApiDeinit();
    EXPECT_EQ(log.Texts().size(), 2U);
  }
}

// The library that stands in for the maker's: an object holds its device open until its last reference is gone, and
// there is none for a device that cannot be opened.
TEST(DriApiTest, StandIn) {
  const OpenLibrary library(QEL_DRI_STAND_IN);
  const auto create = library.Find<QelVTG*(const char*)>("QelDRMCreateNamed");
  EXPECT_EQ(create("/nowhere/card0"), nullptr);
  const long before = OpenDescriptors("/dev/null");
  QelVTG* object = create("/dev/null");
  ASSERT_NE(object, nullptr);
  object->LibrarySlot3();  // another reference
  object->DecRef();
  EXPECT_EQ(OpenDescriptors("/dev/null"), before + 1);
  object->DecRef();
  EXPECT_EQ(OpenDescriptors("/dev/null"), before);
}

}  // namespace
}  // namespace qel::test
