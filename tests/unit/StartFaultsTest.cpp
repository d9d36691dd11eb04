#include <curl/curl.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>

#include "CtlServer.h"
#include "UnitTest.h"

int kova_ctlserver_main();

// Decorators of start-up calls, inserted by the linker (ld(1), --wrap).
namespace {

struct Calls {
  bool signalFails = false;
  std::vector<int> signals;
  bool multiInitFails = false;
  unsigned multiInits = 0;
} calls;

}  // namespace

extern "C" {
sighandler_t __real_signal(int number, sighandler_t handler);
sighandler_t __wrap_signal(int number, sighandler_t handler) {
  calls.signals.push_back(number);
  return calls.signalFails ? SIG_ERR : __real_signal(number, handler);
}

CURLM* __real_curl_multi_init();
CURLM* __wrap_curl_multi_init() {
  ++calls.multiInits;
  return calls.multiInitFails ? nullptr : __real_curl_multi_init();
}
}

namespace kova::ctlserver {
namespace {

class StartFaultsTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    calls = Calls();
    platform().cameraInfo = Variant(kPlainCamera);
    static_cast<Variant&>(info_) = platform().cameraInfo;
  }
  void TearDown() override { calls = Calls(); }

  variant::CameraInfo info_;
};

TEST_F(StartFaultsTest, FailingStatisticsEngineEndsInit) {
  platform().stats.initResult = 17;
  CtlServer server(info_);
  EXPECT_FALSE(server.init(nullptr));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"CtlServer", "init", LOG_ERR, 0,
                                  "Failed to initialize system statistics engine, res=17"}));
  EXPECT_THAT(platform().journal, ElementsAre("InitializeStatsLib")) << "later steps do not run";
  EXPECT_EQ(calls.multiInits, 0U);
}

TEST_F(StartFaultsTest, UnsettableSignalHandlerStopsItThroughTeardown) {
  calls.signalFails = true;
  EXPECT_EQ(kova_ctlserver_main(), -1);
  EXPECT_THAT(calls.signals, ElementsAre(SIGTERM));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"main", "main", LOG_ERR, 0, "Failed to set signal handler"}));
  const auto& journal = platform().journal;
  const std::vector<std::string> ending(
      std::find(journal.begin(), journal.end(), "Ipc::Init kova_ctlserver"), journal.end());
  EXPECT_THAT(ending,
              ElementsAre("Ipc::Init kova_ctlserver", "CloseStatsLib", "Ipc::FreeInstance"));
}

TEST_F(StartFaultsTest, FailingTransferServiceEndsInitBeforeButton) {
  calls.multiInitFails = true;
  CtlServer server(info_);
  EXPECT_FALSE(server.init(nullptr));
  EXPECT_THAT(platform().log, Contains(LogLine{"CtlServer", "init", LOG_ERR, 0,
                                               "Failed to initialize transfer service"}));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("BaseButton::init"))));
}

TEST_F(StartFaultsTest, FailingSaveAndTransfersDoNotBlockButton) {
  CtlServer server(info_);  // without init(), so its transfers fail
  platform().onRun = [](const std::string&) { return fakes::ProcessResult{1, "", ""}; };
  platform().button.serviceResult = false;
  server.persist(false);
  platform().nowMs += 5001;
  EXPECT_TRUE(server.service(0));

  std::vector<std::string> own;
  for (const auto& line : platform().log) {
    if (line.unit == "CtlServer" && line.function == "service" && line.level == LOG_ERR) {
      own.push_back(line.text);
    }
  }
  EXPECT_THAT(own, ElementsAre("Failed to persist", "Failed to service transfers",
                               "Failed to service reset button case"));
  EXPECT_THAT(platform().journal, Contains("BaseButton::service"));
}

}  // namespace
}  // namespace kova::ctlserver
