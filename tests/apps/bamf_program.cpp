// Prints the application that BAMF finds for each window, one per line, and unloads the libraries. Arguments: the
// windows. The log is written to the working directory.
#include <cstdio>
#include <cstdlib>

#include "apps/bamf.h"
#include "desktop/glib_api.h"
#include "log/log.h"

int main(int, char** argv) {
  qel::SetLogDirectory(".");
  qel::SetLogLevel(2);
  std::setbuf(stdout, nullptr);
  qel::GLibApiInit(0xFFFFFE7F);
  qel::BamfLoad();
  while (*++argv != nullptr) {
    std::puts(qel::BamfDesktopName(std::strtoul(*argv, nullptr, 0)).c_str());
    qel::BamfHandleSignals();
  }
  qel::BamfUnload();
  qel::GLibApiDeinit();
  return 0;
}
