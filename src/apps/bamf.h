// The application matcher of libbamf3, opened at run time: it knows which desktop file a window belongs to.
//
// BamfLoad() and BamfUnload() are for the main thread while no worker runs, the rest is for the worker. The matcher may
// take two seconds to answer; after one that was later it is not asked any more.
#pragma once

#include <X11/X.h>

#include <string>

namespace qel {

void BamfLoad();
void BamfUnload();

// The desktop id, without extension, of the window's application; empty when BAMF is absent or knows of none. Asks the
// matcher's daemon over the session bus.
std::string BamfDesktopName(Window window);

// Deals with what the daemon has told since. To be called now and then: it would pile up otherwise.
void BamfHandleSignals();

}  // namespace qel
