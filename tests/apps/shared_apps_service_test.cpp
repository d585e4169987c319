// Where the service does not start. What it does where it can is seen in whole sessions.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <span>

#include "log/log.h"
#include "support/log_capture.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using Texts = std::vector<std::string>;

class SharedAppsServiceTest : public testing::Test {
 protected:
  RunningAppRegistry registry_;
  WindowRequestQueue requests_;
  LaunchedProcessTable launched_;
  DesktopEntryRegistry entries_;
  IconThemes icon_themes_;
  const GuestCommands host_{[](TgRequest&) -> bool { throw std::logic_error("the host was told something"); }};
  SharedAppsService service_{host_, {registry_, requests_, launched_, entries_, icon_themes_}, [] { return true; }};
  ServiceDescriptor& callbacks_ = service_.Descriptor();
  ServiceContext context_{.connection_type = kConnectionX11, .control_extension_opcode = -1};
  const LogCapture log_{kLogWarning};
};

TEST_F(SharedAppsServiceTest, StartsOnlyWhereItCanServe) {
  context_.connection_type = kConnectionWayland;
  EXPECT_FALSE(callbacks_.init(context_));
  callbacks_.poll(context_);
  callbacks_.event(context_, nullptr);
  EXPECT_FALSE(callbacks_.stop(context_));
  EXPECT_EQ(log_.Texts(), Texts{});
  context_.connection_type = kConnectionX11;
  context_.control_extension_opcode = 0;
  EXPECT_FALSE(callbacks_.init(context_));
  EXPECT_EQ(log_.Texts(), Texts{"Error: Can't initialize"});
}

// All of the session's atoms are tried before it is given up, and only then those of the window types.
TEST_F(SharedAppsServiceTest, NamesTheMissingAtoms) {
  const XServer server;
  const XConnection connection(server.Display());
  context_.display = connection;
  const std::span names(kSessionAtomNames);
  const auto make = [&](std::span<const char* const> some) {
    for (const char* const name : some) {
      XInternAtom(connection, name, False);
    }
  };
  const std::string error = "Error: Can't initialize atom ";
  make(names.first(13));
  EXPECT_FALSE(callbacks_.init(context_));
  EXPECT_EQ(log_.Texts(), (Texts{error + names[13], error + names[14]}));
  make(names.subspan(13, 2));
  EXPECT_FALSE(callbacks_.init(context_));
  EXPECT_EQ(log_.Texts().back(), error + names.back());
  EXPECT_EQ(log_.Texts().size(), names.size() - 13);
}

}  // namespace
}  // namespace qel::test
