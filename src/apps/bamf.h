// The application matcher of libbamf3, opened at run time. It finds the desktop file of a window.
//
// BamfLoad() and BamfUnload() are called on the main thread while no worker runs, the other functions on the worker.
// The matcher has two seconds for an answer. After an answer that was too late it is not asked any more.
#pragma once

#include <X11/X.h>

#include <string>

namespace qel {

// Opens the library. When it or one of its functions is missing, this is logged, and BamfDesktopName() finds nothing.
void BamfLoad();
void BamfUnload();

// The desktop id, without extension, of the window's application; empty when BAMF is not available or does not know the
// window. Asks the matcher's daemon over the session bus.
std::string BamfDesktopName(Window window);

// Handles the signals that the daemon has sent. Must be called regularly, because the signals are kept in memory until
// then.
void BamfHandleSignals();

}  // namespace qel
