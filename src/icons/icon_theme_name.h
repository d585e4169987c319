// The name of the icon theme that the user has chosen.
//
// Worker thread only. Reading GSettings or GConf talks to the session bus where their stores do, and leaves threads of
// those libraries behind. A store that does not answer within two seconds is taken to hold nothing, from then on.
#pragma once

#include <string>

#include "desktop/desktop_kind.h"

namespace qel {

// The theme of this desktop; a fixed name where the desktop does not tell.
std::string CurrentIconThemeName(DesktopKind kind);

// Each is empty when it finds nothing.
std::string ReadGSettingsIconTheme();
std::string ReadGConfIconTheme();
std::string ReadKdeIconTheme();

}  // namespace qel
