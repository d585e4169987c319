// libQelDRI.so.1 for tests, with or without its function. The function creates only one object.
#include <utility>

#include "tools_service/drm_object.h"

class Drm final : public QelVTG {
  void LibrarySlot2() override {}
  void LibrarySlot3() override {}
};

#ifdef QEL_WITH_FUNCTION
extern "C" QelVTG* QelDRMCreateNamed(const char* /*device*/) {
  static bool created = false;
  return std::exchange(created, true) ? nullptr : new Drm;
}
#endif
