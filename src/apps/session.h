// The X session that is being served: its connection, its root window and its atoms.
//
// One object, written by the service's init on the worker thread while no other thread of the service runs, and only
// read from then on. Only the worker thread may use the display.
#pragma once

#include <X11/Xlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qel {

struct SessionAtoms {
#define QEL_SESSION_ATOM(member, name) Atom member = None;
#include "apps/session_atoms.def"
#undef QEL_SESSION_ATOM
};

// Rows of the window type table.
enum WindowTypeRowIndex : std::size_t {
#define QEL_WINDOW_TYPE(row, name) kWindowType##row,
#include "apps/session_atoms.def"
#undef QEL_WINDOW_TYPE
  kWindowTypeCount
};

struct WindowTypeRow {
  char name[256];
  std::uint32_t atom;
};

using WindowTypeTable = std::array<WindowTypeRow, kWindowTypeCount>;

struct Session {
  Display* display = nullptr;  // SessionDisplay; owned by the Tools Service
  Window root = None;          // SessionRoot, of the display's default screen
  SessionAtoms atoms;
  WindowTypeTable window_types{{
#define QEL_WINDOW_TYPE(row, name) {name, None},
#include "apps/session_atoms.def"
#undef QEL_WINDOW_TYPE
  }};

  // Any of the table's types.
  bool IsKnownWindowType(Atom type) const;
  // A type whose windows are shown to the host: normal windows and dialogs.
  bool IsSharedWindowType(Atom type) const;
};

// Look the atoms up on the server, which does not create those it lacks. Return the names of these.
std::vector<std::string> InternSessionAtoms(Session& session);
std::vector<std::string> InternWindowTypes(Session& session);

}  // namespace qel
