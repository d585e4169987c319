// The interface of the Wayland binding library libQelWl.so.1, which the program is linked with: two functions, and a
// table of the Wayland client library's entry points.
//
// The declarations stand outside the program's namespace because they name another library's symbols. They replace the
// Wayland client library's headers: all that is handed about is opaque to the program.
#pragma once

#include <cstddef>
#include <cstdint>

struct wl_display;
struct wl_event_queue;
struct wl_interface;
struct wl_proxy;

// The table. An entry's position is the library's interface; each entry is described by the client call it performs.
struct QelWlApi {
  using Unused = void*;
  using Listener = void (**)();  // functions, in the order of the interface's events

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

// Fills the table; nonzero on success.
int QelWaylandBindingInit();
// Empties the table; also to be called after a failed QelWaylandBindingInit().
void QelWaylandBindingDeinit();

extern QelWlApi g_QelWlApi;

}  // extern "C"
