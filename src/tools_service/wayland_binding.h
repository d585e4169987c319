// The interface of the Wayland binding library libQelWl.so.1, which is linked into the program: two functions, and a
// table with functions of the Wayland client library.
//
// The declarations are outside of the program's namespace because they name symbols of another library. They replace
// the headers of the Wayland client library; the program uses its objects only through pointers.
#pragma once

#include <cstddef>
#include <cstdint>

struct wl_display;
struct wl_event_queue;
struct wl_interface;
struct wl_proxy;

// The table. The position of each entry is part of the library's interface. An entry "name" is the function wl_name()
// of the Wayland client library.
struct QelWlApi {
  using Unused = void*;
  using Listener = void (**)();  // one function per event of the interface, in protocol order

  /*  0 */ wl_display* (*display_connect)(const char* name);
  /*  1 */ Unused unused_1;
  /*  2 */ void (*display_disconnect)(wl_display*);
  /*  3 */ Unused unused_3;
  /*  4 */ wl_event_queue* (*display_create_queue)(wl_display*);
  /*  5 */ int (*display_flush)(wl_display*);
  /*  6 */ Unused unused_6;
  /*  7 */ int (*display_roundtrip_queue)(wl_display*, wl_event_queue*);
  /*  8 */ int (*proxy_add_listener)(wl_proxy*, Listener, void* data);
  /*  9 */ Unused unused_9;
  /* 10 */ wl_proxy* (*proxy_marshal_constructor)(wl_proxy*, std::uint32_t request, const wl_interface*, ...);
  /* 11 */ void* (*proxy_create_wrapper)(void* proxy);
  /* 12 */ void (*proxy_wrapper_destroy)(void* wrapper);
  /* 13 */ void (*proxy_destroy)(wl_proxy*);
  /* 14 */ void (*proxy_set_queue)(wl_proxy*, wl_event_queue*);
  /* 15 */ Unused unused_15[5];
  /* 20 */ void (*proxy_set_user_data)(wl_proxy*, void* data);
  /* 21 */ void (*event_queue_destroy)(wl_event_queue*);
  /* 22 */ wl_proxy* (*proxy_marshal_constructor_versioned)(wl_proxy*, std::uint32_t request, const wl_interface*,
                                                            std::uint32_t version, ...);
  /* 23 */ Unused unused_23[11];
  /* 34 */ const wl_interface* registry_interface;
  /* 35 */ Unused unused_35;
  /* 36 */ const wl_interface* output_interface;
};

static_assert(offsetof(QelWlApi, proxy_marshal_constructor) == 10 * sizeof(void*));
static_assert(offsetof(QelWlApi, proxy_set_user_data) == 20 * sizeof(void*));
static_assert(offsetof(QelWlApi, output_interface) == 36 * sizeof(void*));

extern "C" {

// Fills the table. Returns nonzero on success.
int QelWaylandBindingInit();
// Clears the table. Must also be called after a failed QelWaylandBindingInit().
void QelWaylandBindingDeinit();

extern QelWlApi g_QelWlApi;

}  // extern "C"
