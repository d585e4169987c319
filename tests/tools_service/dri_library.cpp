// libQelDRI.so.1 for tests, with and without its function, which creates two objects and then no more. Counts the
// objects that were created and deleted.
#include "tools_service/drm_object.h"

namespace {

int g_created = 0;
int g_deleted = 0;

class Drm final : public QelVTG {
 public:
  Drm() { ++g_created; }
  ~Drm() override { ++g_deleted; }
  void LibrarySlot2() override {}
  void LibrarySlot3() override {}
};

}  // namespace

extern "C" {

#ifdef QEL_WITH_FUNCTION
QelVTG* QelDRMCreateNamed(const char* /*device*/) {
  return g_created < 2 ? new Drm : nullptr;
}
#endif

int DrmObjectsCreated() {
  return g_created;
}

int DrmObjectsDeleted() {
  return g_deleted;
}

}  // extern "C"
