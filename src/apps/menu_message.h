// Sends the applications menu to the host.
#pragma once

#include "appmenu/applications_menu.h"
#include "appmenu/desktop_entries.h"
#include "icons/icon_lookup.h"
#include "tools_gate/guest_commands.h"

namespace qel {

// Collects name, desktop file, time, location and icon of each entry and sends all of them in one message. An entry
// without a name gets a name from its id, which is also stored in the registry. Entries and icons that exceed the
// limits of the message are left out, with a warning. Called on the thread that loads the menu, while the worker waits
// for it. All memory that it allocates is released before it returns.
void SendApplicationsMenu(const GuestCommands& guest_commands, DesktopEntryRegistry& entries, const IconFinder& icons,
                          const MenuEntries& menu);

}  // namespace qel
