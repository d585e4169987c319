// Libraries that are opened at run time, and their functions.
//
// A library is the handle that dlopen() gave, null when none is open. What a missing library or function means, and
// how it is logged, is up to the caller.
#pragma once

#include <dlfcn.h>

namespace qel {

// With all that it needs resolved at once, for everybody to use. Null when there is no such library.
void* OpenLibrary(const char* name);

// The first library of a list, ended by a null, that can be opened. `before_try` is called with each name.
template <typename BeforeTry>
void* OpenFirstLibrary(const char* const* names, BeforeTry before_try) {
  void* library = nullptr;
  for (; library == nullptr && *names != nullptr; ++names) {
    before_try(*names);
    library = OpenLibrary(*names);
  }
  return library;
}

// Stores the address of a function of the library, or of those that it needs, in `function`, a pointer of the
// function's type. Returns null, or says why the function cannot be had, until the next call of this kind.
template <typename Function>
const char* FindFunction(void* library, const char* name, Function& function) {
  dlerror();  // forgets errors of earlier calls
  function = reinterpret_cast<Function>(dlsym(library, name));
  return dlerror();
}

// Closes a library that is open and forgets the handle. False when a question that nobody waits for any more may still
// be inside: then the library stays in memory, and the pointers to its functions must stay as they are.
bool CloseLibrary(void*& library);

}  // namespace qel
