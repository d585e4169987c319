#include "libraries/library.h"

#include <utility>

#include "base/respondent.h"

namespace qel {

void* OpenLibrary(const char* name) {
  return dlopen(name, RTLD_NOW | RTLD_GLOBAL);
}

bool CloseLibrary(void*& library) {
  void* const closed = std::exchange(library, nullptr);
  if (IsAnyQuestionOpen()) {
    return false;
  }
  dlclose(closed);
  return true;
}

}  // namespace qel
