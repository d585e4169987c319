// The application matcher of libbamf3, opened at run time: it knows which desktop file a window belongs to.
//
// BamfLoad() and BamfUnload() are for the main thread while no worker runs; BamfDesktopName() is for the worker.
#pragma once

#include <X11/X.h>

#include <string>

namespace qel {

void BamfLoad();
void BamfUnload();

// The desktop id, without extension, of the window's application; empty when BAMF is absent or knows of none. Asks the
// matcher's daemon over the session bus.
std::string BamfDesktopName(Window window);

}  // namespace qel
