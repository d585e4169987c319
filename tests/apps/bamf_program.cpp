// Prints the application that BAMF names for a window, and unloads the libraries. Arguments: the window, the directory
// of the log, and how many times to ask until the matcher's daemon has seen the window.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "apps/bamf.h"
#include "desktop/glib_api.h"
#include "log/log.h"

int main(int, char** argv) {
  qel::SetLogDirectory(argv[2]);
  qel::SetLogLevel(2);
  qel::GLibApiInit(0xFFFFFE7F);
  qel::BamfLoad();
  std::string name;
  for (int attempt = 0; attempt < std::atoi(argv[3]) && name.empty(); ++attempt) {
    name = qel::BamfDesktopName(std::strtoul(argv[1], nullptr, 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(name.empty() ? 25 : 0));
  }
  std::puts(name.c_str());
  qel::BamfUnload();
  qel::GLibApiDeinit();
  return 0;
}
