// Where the service does not start. What it does where it can is seen in whole sessions.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <algorithm>
#include <span>

#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using Texts = std::vector<std::string>;

bool device_is_open = true;

class SharedAppsServiceTest : public testing::Test {
 protected:
  RunningAppRegistry registry_;
  WindowRequestQueue requests_;
  LaunchedProcessTable launched_;
  DesktopEntryRegistry entries_;
  IconThemes icon_themes_;
  const GuestCommands host_{[](TgRequest&) -> bool { throw std::logic_error("the host was told something"); }};
  SharedAppsService service_{
      host_, {registry_, requests_, launched_, entries_, icon_themes_}, [] { return device_is_open; }};
  ServiceDescriptor& callbacks_ = service_.Descriptor();
};

TEST_F(SharedAppsServiceTest, StartsOnlyWhereItCanServe) {
  const LogCapture log;
  ServiceContext context{.connection_type = kConnectionWayland, .control_extension_opcode = -1};
  EXPECT_FALSE(callbacks_.init(context));
  callbacks_.poll(context);
  callbacks_.event(context, nullptr);
  EXPECT_FALSE(callbacks_.stop(context));
  EXPECT_EQ(log.Texts(), Texts{});
  context.connection_type = kConnectionX11;
  device_is_open = false;
  EXPECT_FALSE(callbacks_.init(context));
  device_is_open = true;
  context.control_extension_opcode = 0;
  EXPECT_FALSE(callbacks_.init(context));
  EXPECT_EQ(log.Texts(), (Texts{"Error: Can't initialize", "Error: Can't initialize"}));
}

// All of the session's atoms are tried before it is given up, and only then those of the window types.
TEST_F(SharedAppsServiceTest, NamesTheMissingAtoms) {
  const XServer server;
  const XConnection connection(server.Display());
  const LogCapture log;
  ServiceContext context{.connection_type = kConnectionX11, .display = connection, .control_extension_opcode = -1};
  Texts expected;
  const auto expect_missing = [&](std::span<const char* const> missing) {
    EXPECT_FALSE(callbacks_.init(context));
    for (const char* const name : missing) {
      expected.push_back(std::string("Error: Can't initialize atom ") + name);
    }
    EXPECT_EQ(log.Texts(), expected);
  };
  const auto make = [&](const char* name) { XInternAtom(connection, name, False); };
  const std::span names(kSessionAtomNames);
  const char* const two[] = {names[0], names[13]};
  std::ranges::for_each(names.subspan(1, 12), make);
  make(names[14]);
  expect_missing(two);
  std::ranges::for_each(two, make);
  expect_missing(names.subspan(15));
}

}  // namespace
}  // namespace qel::test
