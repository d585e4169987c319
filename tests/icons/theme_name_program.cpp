// Prints the icon themes that GSettings and GConf name, as often as the argument says, loading and unloading the
// libraries around each time. The log goes into the working directory.
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
