// The X session that the agent serves: its connection, its root window and its atoms.
//
// There is one object. The service writes it on the worker thread during its initialisation; after that it is only
// read. Only the worker thread may use the display.
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

  // Whether the type is in the table.
  bool IsKnownWindowType(Atom type) const;
  // Whether windows of this type are shown to the host: normal windows and dialogs.
  bool IsSharedWindowType(Atom type) const;
};

// Find the atoms on the server, with one round trip each. Return the names of the atoms that do not exist; they are not
// created.
std::vector<std::string> InternSessionAtoms(Session& session);
std::vector<std::string> InternWindowTypes(Session& session);

}  // namespace qel
