// Finds the name of the icon theme that the user has chosen.
//
// Worker thread only. GSettings and GConf may use the session bus, and start threads of their own that keep running. A
// store that does not answer within two seconds counts as empty, also in later calls.
#pragma once

#include <string>

#include "desktop/desktop_kind.h"

namespace qel {

// The name of the theme for this desktop; a fixed name when no choice can be found.
std::string CurrentIconThemeName(DesktopKind kind);

// Each returns an empty string when it finds no theme.
std::string ReadGSettingsIconTheme();
std::string ReadGConfIconTheme();
std::string ReadKdeIconTheme();

}  // namespace qel
