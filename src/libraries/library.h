// Opens libraries at run time and finds their functions.
//
// A library is a handle from dlopen(), or null when none is open. Nothing is logged here: the caller decides what a
// missing library or function means.
#pragma once

#include <dlfcn.h>

namespace qel {

// Opens a library with RTLD_NOW and RTLD_GLOBAL. Returns null when it cannot be opened. CloseLibrary() closes it.
void* OpenLibrary(const char* name);

// Opens the first library that can be opened of a null-terminated list. Calls `before_try` with each name before it is
// tried. Returns null when none can be opened.
template <typename BeforeTry>
void* OpenFirstLibrary(const char* const* names, BeforeTry before_try) {
  void* library = nullptr;
  for (; library == nullptr && *names != nullptr; ++names) {
    before_try(*names);
    library = OpenLibrary(*names);
  }
  return library;
}

// Finds a function in the library or in the libraries that it depends on, and stores its address in `function`. Returns
// null on success, else the text of dlerror(), which is valid until the next call of a dl function.
template <typename Function>
const char* FindFunction(void* library, const char* name, Function& function) {
  dlerror();  // clears errors of earlier calls
  function = reinterpret_cast<Function>(dlsym(library, name));
  return dlerror();
}

// Sets the handle to null and closes the library. Returns false when it was left open instead, because a question on a
// detached thread may still run code of it (IsAnyQuestionOpen()); then the caller must not change the pointers to its
// functions.
bool CloseLibrary(void*& library);

}  // namespace qel
