// Prints the icon themes of GSettings and GConf. The argument is the number of repetitions; each one loads and unloads
// the libraries. The log is written to the working directory.
#include <cstdio>
#include <cstdlib>

#include "desktop/glib_api.h"
#include "icons/icon_theme_name.h"
#include "log/log.h"

int main(int argc, char** argv) {
  qel::SetLogDirectory(".");
  for (int rounds = argc > 1 ? std::atoi(argv[1]) : 1; rounds > 0; --rounds) {
    qel::GLibApiInit(0xFFFFFE7F);
    std::printf("%s|%s\n", qel::ReadGSettingsIconTheme().c_str(), qel::ReadGConfIconTheme().c_str());
    qel::GLibApiDeinit();
  }
  return 0;
}
