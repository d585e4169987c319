#include "apps/session.h"

#include <algorithm>

#include "tools_service/x_library.h"

namespace qel {
namespace {

Atom InternExisting(Display* display, const char* name, std::vector<std::string>& missing) {
  const Atom atom = x_api.XInternAtom(display, name, True);
  if (atom == None) {
    missing.emplace_back(name);
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

std::vector<std::string> InternSessionAtoms(Session& session) {
  std::vector<std::string> missing;
#define QEL_SESSION_ATOM(member, name) session.atoms.member = InternExisting(session.display, name, missing);
#include "apps/session_atoms.def"
#undef QEL_SESSION_ATOM
  return missing;
}

std::vector<std::string> InternWindowTypes(Session& session) {
  std::vector<std::string> missing;
  for (WindowTypeRow& row : session.window_types) {
    row.atom = static_cast<std::uint32_t>(InternExisting(session.display, row.name, missing));
  }
  return missing;
}

}  // namespace qel
