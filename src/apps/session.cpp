#include "apps/session.h"

#include <algorithm>

#include "log/log.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

Atom InternExisting(Display* display, const char* name) {
  const Atom atom = x_api.XInternAtom(display, name, True);
  if (atom == None) {
    LogError(kModuleAgent, "Error: Can't initialize atom %s", name);
  }
  return atom;
}

}  // namespace

bool Session::IsKnownWindowType(Atom type) const {
  return std::any_of(window_types.begin(), window_types.end(),
                     [type](const WindowTypeRow& row) { return row.atom == type; });
}

bool Session::IsSharedWindowType(Atom type) const {
  return type == window_types[kWindowTypeNormal].atom || type == window_types[kWindowTypeDialog].atom;
}

bool InternSessionAtoms(Session& session) {
  bool complete = true;
#define QEL_SESSION_ATOM(member, name)                          \
  session.atoms.member = InternExisting(session.display, name); \
  complete = complete && session.atoms.member != None;
#include "apps/session_atoms.def"
#undef QEL_SESSION_ATOM
  return complete;
}

bool InternWindowTypes(Session& session) {
  bool complete = true;
  for (WindowTypeRow& row : session.window_types) {
    row.atom = static_cast<std::uint32_t>(InternExisting(session.display, row.name));
    complete = complete && row.atom != None;
  }
  return complete;
}

}  // namespace qel
