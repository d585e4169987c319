// Telling the host what the applications menu holds.
#pragma once

#include "appmenu/applications_menu.h"
#include "appmenu/desktop_entries.h"
#include "icons/icon_lookup.h"
#include "tools_gate/guest_commands.h"

namespace qel {

// Gathers name, desktop file, time, location and icon of each entry and sends them in one message. An entry without a
// name gets one made of its id, which the registry keeps. Worker thread only; everything it allocates is released when
// it returns.
void SendApplicationsMenu(const GuestCommands& guest_commands, DesktopEntryRegistry& entries, const IconFinder& icons,
                          const MenuEntries& menu);

}  // namespace qel
