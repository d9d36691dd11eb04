#include <curl/curl.h>
#include <signal.h>

#include <algorithm>

#include "CtlCommandsHandler.h"
#include "UnitTest.h"
#include "WirelessKeys.h"

int kova_ctlserver_main();

namespace {
std::vector<int> transferWaits;  // the time-outs of curl_multi_wait()
}

extern "C" {
CURLMcode __real_curl_multi_wait(CURLM*, curl_waitfd[], unsigned int, int, int*);
CURLMcode __wrap_curl_multi_wait(CURLM* multi, curl_waitfd extra[], unsigned int count,
                                 int timeoutMs, int* ready) {
  transferWaits.push_back(timeoutMs);
  return __real_curl_multi_wait(multi, extra, count, timeoutMs, ready);
}
}

namespace kova::ctlserver {
namespace {

constexpr char kLogOpened[] = "openSystemLog ctl 1 128";  // LOG_PID, LOG_LOCAL0

/// Runs the daemon's main() in a child process, because its signal flag is never reset. The records
/// of the fakes are checked in the child, whose exit status is the result.
class MainTest : public testing::Test {
 protected:
  void SetUp() override {
    ipc::Ipc::FreeInstance();  // it may be left over from another test
    fakes::reset();
    transferWaits.clear();
    platform().cameraInfo = Variant(kPlainCamera);
  }

  static void ask(Map request) { platform().bus.pending.emplace_back(std::move(request)); }

  /// Acts in the pass of the loop with this number, from 1.
  static void inPass(
      int number, const std::function<void()>& act = [] { raise(SIGTERM); }) {
    platform().bus.onService = [act, left = number]() mutable {
      if (--left == 0) {
        act();
      }
      return true;
    };
  }

  static void sigtermDuringRunOf(const std::string& command) {
    platform().onRun = [command](const std::string& run) {
      if (run == command) {
        raise(SIGTERM);
      }
      return fakes::ProcessResult{};
    };
  }

  /// Expects that main() returns `status` and `check` holds in the child afterwards.
  template <typename Check>
  static void expectRun(int status, Check check) {
    EXPECT_EXIT(
        {
          const int result = kova_ctlserver_main();
          if (result != status) {
            std::fprintf(stderr, "status %d, not %d\n", result, status);
            _exit(2);
          }
          check();
          std::fprintf(stderr, "journal: %s\nlog: %s\n",
                       testing::PrintToString(platform().journal).c_str(),
                       testing::PrintToString(platform().logTexts()).c_str());
          _exit(testing::Test::HasFailure() ? 3 : 0);
        },
        testing::ExitedWithCode(0), "");
  }

  /// The journal from the first `from` on.
  static std::vector<std::string> journalFrom(const std::string& from) {
    const auto& all = platform().journal;
    return {std::find(all.begin(), all.end(), from), all.end()};
  }
};

TEST_F(MainTest, StartsRegistersAndStopsInOrder) {
  inPass(2);
  expectRun(0, [] {
    auto journal = platform().journal;
    std::vector<std::string> registered;
    std::copy_if(journal.begin(), journal.end(), std::back_inserter(registered),
                 [](const auto& event) { return event.starts_with("Ipc::AddHandler"); });
    std::vector<std::string> wanted;
    for (const auto name : CtlCommandsHandler::functionNames()) {
      wanted.push_back("Ipc::AddHandler \"" + std::string(name) + "\" CtlHandler");
    }
    wanted.emplace_back("Ipc::AddHandler \"\" CatchAllHandlerRejector");
    EXPECT_EQ(registered, wanted);

    journal.resize(5);
    EXPECT_THAT(journal, ElementsAre(kLogOpened, "InstallCrashDumpHandler", "Ipc::GetInstance",
                                     "CameraInfo::Init", "InitializeStatsLib"));
    EXPECT_THAT(journalFrom("Ipc::Init kova_ctlserver"),
                ElementsAre("Ipc::Init kova_ctlserver",                           //
                            "Ipc::Service 0", "BaseButton::service", "sleep 10",  //
                            "Ipc::Service 0", "BaseButton::service", "sleep 10",  //
                            "CloseStatsLib", "Ipc::FreeInstance"));
    EXPECT_THAT(platform().notified, ElementsAre("ready", "alive"));
    EXPECT_EQ(platform().repeatsFlushed, 2U);
    EXPECT_TRUE(platform().logged(6, "SIGTERM received"));
    EXPECT_EQ(platform().log.back().unit, "main");
    EXPECT_EQ(platform().log.back().function, "main");
  });
}

struct StopFailure {
  const char* text;
  std::function<void(fakes::Platform&)> arrange;
  std::vector<std::string> ending;  // of the journal
  std::vector<std::string> notified = {};
};

const StopFailure kStopFailures[] = {
    {"Unable to install the crash dump handler",
     [](auto& camera) { camera.crashHandlerResult = false; },
     {kLogOpened, "InstallCrashDumpHandler"}},
    {"Failed to read CameraInfo",
     [](auto& camera) { camera.cameraInfoResult = false; },
     {kLogOpened, "InstallCrashDumpHandler", "Ipc::GetInstance", "CameraInfo::Init",
      "Ipc::FreeInstance"}},
    {"Failed to initialize CtlServer",
     [](auto& camera) { camera.stats.initResult = 5; },
     {kLogOpened, "InstallCrashDumpHandler", "Ipc::GetInstance", "CameraInfo::Init",
      "InitializeStatsLib", "Ipc::FreeInstance"}},
    {"Failed to initialize IPC",
     [](auto& camera) { camera.bus.initResult = false; },
     {"Ipc::Init kova_ctlserver", "CloseStatsLib", "Ipc::FreeInstance"}},
    {"Failed to service IPC",
     [](auto& camera) { camera.bus.onService = [] { return false; }; },
     {"Ipc::Service 0", "CloseStatsLib", "Ipc::FreeInstance"},
     {"ready"}}};

TEST_F(MainTest, FailureStopsItThroughTeardown) {
  for (const auto& failure : kStopFailures) {
    SCOPED_TRACE(failure.text);
    SetUp();
    failure.arrange(platform());
    expectRun(-1, [&] {
      EXPECT_TRUE(platform().logged(3, failure.text));
      EXPECT_EQ(journalFrom(failure.ending.front()), failure.ending);
      EXPECT_EQ(platform().notified, failure.notified);
    });
  }
}

TEST_F(MainTest, ExitServiceStopsItAtNextCheckWithoutLogLine) {
  ask({{"functionName", "ExitService"}, {"responseExpected", true}});
  expectRun(0, [] {
    EXPECT_THAT(platform().log, IsEmpty());
    EXPECT_THAT(platform().bus.responses, IsEmpty());
    EXPECT_THAT(journalFrom("Ipc::Service 0"),
                ElementsAre("Ipc::Service 0", "BaseButton::service", "sleep 10", "CloseStatsLib",
                            "Ipc::FreeInstance"));
  });
}

TEST_F(MainTest, RequestInterruptedBySigtermCompletesFirst) {
  ask({{"functionName", "SaveToFlash"}, {"sync", true}, {"responseExpected", true}});
  sigtermDuringRunOf(kSave);
  expectRun(0, [] {
    ASSERT_EQ(platform().bus.responses.size(), 1U);
    EXPECT_EQ(platform().bus.responses.front().second.find("statusCode")->toNumber<int>(), 0);
    EXPECT_THAT(platform().logTexts(), ElementsAre("Persisted", "SIGTERM received"));
    EXPECT_THAT(
        journalFrom("Ipc::Service 0"),
        ElementsAre("Ipc::Service 0", "run /bin/cfgmtd -w -p /etc/ -m", "Ipc::SendResponse",
                    "BaseButton::service", "sleep 10", "CloseStatsLib", "Ipc::FreeInstance"));
  });
}

TEST_F(MainTest, FailedRegistrationDoesNotStopIt) {
  platform().bus.addResult = false;
  inPass(1);
  expectRun(0, [] { EXPECT_THAT(platform().logTexts(), ElementsAre("SIGTERM received")); });
}

TEST_F(MainTest, ExitFlagIsCheckedBeforeSigterm) {
  ask({{"functionName", "ExitService"}});
  inPass(1);
  expectRun(0, [] { EXPECT_FALSE(platform().logged(6, "SIGTERM received")); });
}

TEST_F(MainTest, SecondSigtermDoesNotInterruptPendingSave) {
  ask({{"functionName", "SaveToFlash"}});
  inPass(1);
  sigtermDuringRunOf(kSave);
  expectRun(0, [] {
    EXPECT_THAT(
        journalFrom("CloseStatsLib"),
        ElementsAre("CloseStatsLib", "run /bin/cfgmtd -w -p /etc/ -m", "Ipc::FreeInstance"));
    EXPECT_TRUE(platform().logged(6, "Persisted"));
  });
}

TEST_F(MainTest, RefusedSignalIsRetriedByLoop) {
  ask({{"functionName", "PutRequest"}});
  ask({{"functionName", "SaveToFlash"}});
  platform().bus.signalResult = false;
  inPass(2, [] {
    platform().bus.signalResult = true;
    raise(SIGTERM);
  });
  expectRun(0, [] {
    using testing::Field;
    using testing::Key;
    EXPECT_THAT(platform().bus.signals,
                testing::UnorderedElementsAre(
                    Field(&fakes::Signal::what, "added"),
                    Field(&fakes::Signal::values, ElementsAre(Key("SavePending")))));
  });
}

TEST_F(MainTest, TransfersAreNeverWaitedFor) {
  ask({{"functionName", "PutRequest"},
       {"from", "peer"},
       {"what", "logo"},
       {"hash", "0"},
       {"timeoutMs", 5000},
       {"uri", "http://127.0.0.1:9/logo"}});
  inPass(3);
  expectRun(0, [] {
    ASSERT_FALSE(transferWaits.empty());
    EXPECT_THAT(transferWaits, testing::Each(0));
  });
}

/// A daemon with requests for a factory reset, a reboot and a save.
class RebootTest : public MainTest {
 protected:
  void SetUp() override {
    MainTest::SetUp();
    ask({{"functionName", "ResetToDefaults"}});
    ask({{"functionName", "Reboot"}, {"delayMs", 700}});
    ask({{"functionName", "SaveToFlash"}, {"sync", true}, {"responseExpected", true}});
  }

  static void sigtermDuringSleepOf(int milliseconds) {
    platform().onSleep = [milliseconds](int slept) {
      if (slept == milliseconds) {
        raise(SIGTERM);
      }
    };
  }

  /// The reset runs at exit, and the request after the reboot is not handled.
  static void expectEnd(const std::vector<std::string>& waits) {
    std::vector<std::string> expected = {"sleep 700", "run /bin/cfgmtd -w -p /etc/ -m",
                                         "run /usr/bin/reboot"};
    expected.insert(expected.end(), waits.begin(), waits.end());
    for (const char* event : {"sleep 10", "CloseStatsLib", "run /bin/cfgmtd -c",
                              "run /usr/bin/reboot", "Ipc::FreeInstance"}) {
      expected.emplace_back(event);
    }
    EXPECT_EQ(journalFrom("sleep 700"), expected);
    EXPECT_THAT(platform().logTexts(), ElementsAre("Persisted", "Entering reboot wait mode",
                                                   "SIGTERM received", "Reset to defaults"));
    EXPECT_THAT(platform().bus.responses, IsEmpty());
    EXPECT_THAT(platform().bus.unhandled, ElementsAre("SaveToFlash"));
  }
};

TEST_F(RebootTest, SigtermEndsEndlessWait) {
  sigtermDuringSleepOf(1000);
  expectRun(0, [] { expectEnd({"sleep 1000"}); });
}

TEST_F(RebootTest, SigtermDuringDelayIsNotLost) {
  sigtermDuringSleepOf(700);
  expectRun(0, [] { expectEnd({}); });
}

TEST_F(RebootTest, SigtermDuringToolIsNotLost) {
  sigtermDuringRunOf(kReboot);
  expectRun(0, [] { expectEnd({}); });
}

TEST(WirelessKeys, AreThoseOfAccessPoint) {
  using namespace wireless;
  EXPECT_THAT(
      (std::vector{kChannel, kCtrlInterface, kDriver, kVendorElements, kInterface, kHwMode, kSsid}),
      ElementsAre("channel", "ctrl_interface", "driver", "vendor_elements", "interface", "hw_mode",
                  "ssid"));
}

}  // namespace
}  // namespace kova::ctlserver
