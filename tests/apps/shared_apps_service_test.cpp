// The service does not start, or starts without its optional parts. The session tests check the rest.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host_view.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/without_threads.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

class SharedAppsServiceTest : public testing::Test {
 protected:
  TestDesktop desktop_;
  const ScopedEnvironment environment_{{{"XDG_CURRENT_DESKTOP", "LXDE"}, {"XDG_CONFIG_DIRS", "/none"}}};
  RunningAppRegistry registry_;
  WindowRequestQueue requests_;
  LaunchedProcessTable launched_;
  DesktopEntryRegistry entries_;
  IconThemes icon_themes_;
  std::function<bool(const TgRequest&)> host_ = [](const TgRequest&) -> bool {
    throw std::logic_error("the host was told something");
  };
  const GuestCommands commands_{[this](TgRequest& request) { return host_(request); }};
  SharedAppsService service_{
      commands_, {registry_, requests_, launched_, entries_, icon_themes_}, [] { return true; }, [] { return true; }};
  ServiceDescriptor& callbacks_ = service_.Descriptor();
  ServiceContext context_{.connection_type = kConnectionX11, .display = desktop_.Connection()};
  const LogCapture log_{kLogWarning};
};

TEST_F(SharedAppsServiceTest, StartsOnlyOnX11WithControlExtension) {
  context_.connection_type = kConnectionWayland;
  context_.control_extension_opcode = -1;
  EXPECT_FALSE(callbacks_.init(context_));
  callbacks_.poll(context_);
  callbacks_.event(context_, nullptr);
  EXPECT_FALSE(callbacks_.stop(context_));
  EXPECT_EQ(log_.Texts(), std::vector<std::string>{});
  context_.connection_type = kConnectionX11;
  context_.control_extension_opcode = 0;
  EXPECT_FALSE(callbacks_.init(context_));
  EXPECT_EQ(log_.Texts(), std::vector<std::string>{"Error: Can't initialize"});
}

TEST_F(SharedAppsServiceTest, NeedsOnlyTheThreadForHostCommands) {
  context_.control_extension_opcode = -1;
  std::optional<WithoutThreads> no_threads(std::in_place);
  EXPECT_FALSE(callbacks_.init(context_));
  EXPECT_FALSE(callbacks_.init(context_)) << "the second attempt fails too, and logs nothing new";
  EXPECT_EQ(log_.Texts(), (std::vector<std::string>{"Error: Failed to create thread: Resource temporarily unavailable",
                                                    "Error: Can't start thread for recieving host commands"}));
  no_threads.reset();
  std::atomic<int> menus{0};
  host_ = [&](const TgRequest& request) {
    const host::MessageKind kind = host::KindOf(HostView(request));
    if (kind == host::MessageKind::kToolState && !no_threads) {
      no_threads.emplace();
    }
    menus += kind == host::MessageKind::kAppMenu ? 1 : 0;
    return true;
  };
  EXPECT_TRUE(callbacks_.init(context_));
  EXPECT_EQ(menus, 1);
  EXPECT_TRUE(log_.Contains("Warning: Can't start socket thread"));
  EXPECT_TRUE(callbacks_.stop(context_));
}

}  // namespace
}  // namespace qel::test
