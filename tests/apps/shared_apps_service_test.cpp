// Where the service does not start. What it does where it can is seen in whole sessions.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace qel::test {
namespace {

TEST(SharedAppsService, StartsOnlyWhereItCanServe) {
  RunningAppRegistry registry;
  WindowRequestQueue requests;
  LaunchedProcessTable launched;
  DesktopEntryRegistry entries;
  IconThemes icon_themes;
  const GuestCommands host([](TgRequest&) -> bool { throw std::logic_error("the host was told something"); });
  const SharedAppsService::State state{registry, requests, launched, entries, icon_themes};
  SharedAppsService ready(host, state, [] { return true; });
  SharedAppsService deviceless(host, state, [] { return false; });
  const LogCapture log;
  ServiceContext context{.connection_type = kConnectionWayland, .control_extension_opcode = -1};
  EXPECT_FALSE(ready.Descriptor().init(context));
  ready.Descriptor().poll(context);
  ready.Descriptor().event(context, nullptr);
  EXPECT_FALSE(ready.Descriptor().stop(context));
  EXPECT_EQ(log.Texts(), std::vector<std::string>{});
  context.connection_type = kConnectionX11;
  EXPECT_FALSE(deviceless.Descriptor().init(context));
  context.control_extension_opcode = 0;
  EXPECT_FALSE(ready.Descriptor().init(context));
  EXPECT_EQ(log.Texts(), (std::vector<std::string>{"Error: Can't initialize", "Error: Can't initialize"}));
}

}  // namespace
}  // namespace qel::test
