// The X11 control on real servers.
#include "tools_service/x_service_control.h"

#include <gtest/gtest.h>
#include <unistd.h>

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
  // One life of the control on a display.
  void Serve(const std::string& display) {
    const test::ScopedDisplay environment(display);
    ASSERT_TRUE(ToolsServiceInit(key_.Value(), kConnectionX11, true));
    EXPECT_FALSE(ToolsServiceInit(key_.Value(), kConnectionX11, true)) << "there is one already";
    EXPECT_TRUE(ToolsServiceAddService(&service_.descriptor));
    ToolsServiceRun(10);
    EXPECT_TRUE(ToolsServiceDeinit());
    EXPECT_EQ(x_api.XOpenDisplay, nullptr) << "the libraries are still there";
  }

  test::SemaphoreKey key_;
  test::Journal journal_;
  test::RecordingService service_{"service", journal_};
  test::LogCapture log_;
};

TEST_F(XServiceControlTest, ServesWhereTheServerIsFitAndGrantsTheSession) {
  const test::XServer server;
  const test::XServer without_randr({"-extension", "RANDR"});
  Proxy granting(server.Display());
  Proxy refusing(server.Display());
  refusing.State().grant = false;
  service_.on_poll = [this](ServiceContext&) {
    EXPECT_TRUE(ToolsServiceWakeUp(ToolsServiceAddPipe(&service_.descriptor)));
    const ServicePipe broken{.owner = &service_.descriptor};
    EXPECT_FALSE(ToolsServiceWakeUp(&broken));
    ToolsServiceStop();
  };
  struct Case {
    std::string display;
    std::vector<const char*> texts;
    bool serves;
  };
  Case cases[] = {
      {granting.Display(), {"RandR 1.2 initialized", "Tools Service: X11 service cleanup completed"}, true},
      {server.Display(),
       {"Warning: Tools Service: can't open CorvessanControl extension!",
        "Error: Tools Service: write to pipe -1 service service"},
       true},
      {refusing.Display(), {"Error: Tools Service: can not own user session. Will exit now..."}, false},
      {without_randr.Display(),
       {"RandR extension missing", "RandR 1.2 support missing", "Error: Tools Service: can't open RANDR extension!"},
       false},
      {":9999", {"RandR 1.2 support missing", "Error: Tools Service: can't open connection to XServer!"}, false},
  };
  for (Case& row : cases) {
    SCOPED_TRACE(row.texts.back());
    const test::LogCapture log;
    const int before = journal_.Count("service.stop");
    Serve(row.display);
    EXPECT_EQ(journal_.Count("service.stop") - before, row.serves);
    row.texts.insert(row.texts.end(), {"X functions were loaded successfully", "RandR12 functions were unloaded"});
    for (const char* text : row.texts) {
      EXPECT_EQ(log.Count(text), 1) << text;
    }
  }
  EXPECT_EQ(granting.State().claims + refusing.State().claims, 2U);
  EXPECT_EQ(granting.State().last_user, getuid());
}

// The connection is lost while the worker waits for a reply, and once more in the service's stop.
TEST_F(XServiceControlTest, EndsInOrderWhenTheServerDiesInTheMiddleOfARequest) {
  test::XServer server;
  service_.on_poll = [&](ServiceContext& context) {
    server.Kill();
    x_requests::RoundTrip(static_cast<Display*>(context.display));
  };
  service_.on_stop = [](ServiceContext& context) {
    return x_api.XSync(static_cast<Display*>(context.display), False) != 0;
  };
  Serve(server.Display());
  EXPECT_EQ(journal_.Entries(), (std::vector<std::string>{"service.init", "service.poll", "service.stop"}));
  EXPECT_EQ(log_.Count("Tools Service: Will exit X worker thread now"), 1);
}

}  // namespace
}  // namespace qel
