// Where the service does not start. What it does where it can is seen in whole sessions.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "log/log.h"
#include "support/log_capture.h"

namespace qel::test {
namespace {

TEST(SharedAppsServiceTest, StartsOnlyWhereItCanServe) {
  RunningAppRegistry registry;
  WindowRequestQueue requests;
  LaunchedProcessTable launched;
  DesktopEntryRegistry entries;
  IconThemes icon_themes;
  const GuestCommands host([](TgRequest&) -> bool { throw std::logic_error("the host was told something"); });
  SharedAppsService service(host, {registry, requests, launched, entries, icon_themes}, [] { return true; });
  ServiceDescriptor& callbacks = service.Descriptor();
  ServiceContext context{.connection_type = kConnectionWayland, .control_extension_opcode = -1};
  const LogCapture log(kLogWarning);
  EXPECT_FALSE(callbacks.init(context));
  callbacks.poll(context);
  callbacks.event(context, nullptr);
  EXPECT_FALSE(callbacks.stop(context));
  EXPECT_EQ(log.Texts(), std::vector<std::string>{});
  context.connection_type = kConnectionX11;
  context.control_extension_opcode = 0;
  EXPECT_FALSE(callbacks.init(context));
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"Error: Can't initialize"});
}

}  // namespace
}  // namespace qel::test
