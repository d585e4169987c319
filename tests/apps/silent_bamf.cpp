// A libbamf3.so.2 that prints what it is asked. It knows window 1; asked for any other, it does not answer in time.
#include <unistd.h>

#include <cstdint>
#include <cstdio>

extern "C" {

void* bamf_matcher_get_default() {
  static void* matcher = nullptr;  // of no class: GObject leaves it alone
  return &matcher;
}

void* bamf_matcher_get_application_for_xid(void* matcher, std::uint32_t window) {
  std::printf("asked for %u\n", window);
  if (window != 1) {
    pause();
  }
  return matcher;
}

const char* bamf_application_get_desktop_file(void*) {
  return "/applications/one.desktop";
}

int g_main_context_pending(void*) {
  std::puts("looked after");
  return 0;
}

int g_main_context_iteration(void*, int) {
  return 0;
}
}
