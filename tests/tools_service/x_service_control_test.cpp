// The X11 control on real X servers.
#include "tools_service/x_service_control.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

#include "control_extension/proxy.h"
#include "recording_service.h"
#include "support/log_capture.h"
#include "support/x_server.h"
#include "tools_service/tools_service.h"
#include "tools_service/x_library.h"
#include "tools_service/x_requests.h"

namespace qel {
namespace {

using control_extension::Proxy;

class XServiceControlTest : public testing::Test {
 protected:
  // Runs the control on a display from start to end.
  void Serve(const std::string& display) {
    const test::ScopedDisplay environment(display);
    const test::SemaphoreKey key;
    EXPECT_FALSE(ToolsServiceDeinit());  // logs a line, so that the log file is already open
    const std::ptrdiff_t descriptors = OpenDescriptors();
    ASSERT_TRUE(ToolsServiceInit(key.Value(), kConnectionX11, true));
    EXPECT_TRUE(ToolsServiceAddService(&service_.descriptor));
    ToolsServiceRun(10);
    EXPECT_TRUE(ToolsServiceDeinit());
    EXPECT_EQ(x_api.XOpenDisplay, nullptr) << "the libraries are still loaded";
    EXPECT_TRUE(test::WaitUntil([&] { return OpenDescriptors() == descriptors; })) << "descriptors have leaked";
  }
  static std::ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }

  test::Journal journal_;
  test::RecordingService service_{"service", journal_};
  test::LogCapture log_;
};

TEST_F(XServiceControlTest, NeedsRandRAndTheUserSession) {
  const test::XServer server;
  const test::XServer without_randr({"-extension", "RANDR"});
  Proxy granting(server.Display());
  Proxy refusing(server.Display());
  refusing.State().grant = false;
  service_.on_poll = [this](ServiceContext&) {
    EXPECT_TRUE(ToolsServiceWakeUp(ToolsServiceAddPipe(&service_.descriptor)));
    ServicePipe broken;
    broken.owner = &service_.descriptor;
    EXPECT_FALSE(ToolsServiceWakeUp(&broken));
    ToolsServiceStop();
  };
  const struct {
    std::string display;
    std::string text;
  } cases[] = {
      {granting.Display(), "Error: Tools Service: write to pipe -1 service service"},
      {refusing.Display(), "Error: Tools Service: can not own user session. Will exit now..."},
      {without_randr.Display(), "Error: Tools Service: can't open RANDR extension!"},
  };
  for (const auto& row : cases) {
    Serve(row.display);
    EXPECT_EQ(journal_.Entries().size(), 3U) << "only the first display is served: init, poll, stop";
    EXPECT_EQ(log_.Count(row.text), 1);
  }
  EXPECT_EQ(log_.Count("RandR 1.2 initialized"), 2) << "the second display too, in spite of the earlier stop";
  EXPECT_EQ(granting.State().claims + refusing.State().claims, 2U);
  EXPECT_EQ(granting.State().last_user, getuid());
}

// The server dies while the service stops. The lost connection must not stop the service a second time.
TEST_F(XServiceControlTest, StopsOnlyOnceWhenTheServerDiesDuringTheStop) {
  test::XServer server;
  const auto ask = [&](ServiceContext& context) {
    server.Kill();
    return x_requests::RoundTrip(static_cast<Display*>(context.display)), true;
  };
  service_.on_poll = [](ServiceContext&) { ToolsServiceStop(); };
  service_.on_stop = ask;
  Serve(server.Display());
  EXPECT_EQ(journal_.Entries(), (std::vector<std::string>{"service.init", "service.poll", "service.stop"}));
}

}  // namespace
}  // namespace qel
