#include "CtlServer.h"

#include <gmock/gmock.h>

#include "Commands.h"
#include "Platform.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {
namespace {

class CtlServerTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    static_cast<Variant&>(info_) = Variant(Variant::Map{
        {"name", "Camera"}, {"sysid", 1}, {"feature_wifi", 0}, {"feature_battery", 0}});
  }

  static void fail(const std::string& failing) {
    platform().onRun = [failing](const std::string& command) {
      return fakes::ProcessResult{command == failing ? 1 : 0, "", ""};
    };
  }

  variant::CameraInfo info_;
};

TEST_F(CtlServerTest, ConstructionHasNoVisibleEffect) {
  CtlServer server(info_);
  EXPECT_THAT(platform().journal, IsEmpty());
}

TEST_F(CtlServerTest, FailingStatisticsEngineEndsInit) {
  platform().stats.initResult = 17;
  CtlServer server(info_);
  EXPECT_FALSE(server.init(nullptr));
  ASSERT_EQ(platform().log.size(), 1U);
  EXPECT_EQ(platform().log[0].text, "Failed to initialize system statistics engine, res=17");
  EXPECT_EQ(platform().log[0].level, 3);
  EXPECT_EQ(platform().log[0].unit, "CtlServer");
  EXPECT_EQ(platform().log[0].function, "init");
  EXPECT_THAT(platform().journal, ElementsAre("InitializeStatsLib")) << "later steps do not run";
}

TEST_F(CtlServerTest, StatisticsEngineIsClosedOnlyIfOpened) {
  {
    CtlServer server(info_);
    ASSERT_TRUE(server.init(nullptr));
  }
  EXPECT_THAT(platform().journal, Contains("CloseStatsLib"));
  platform().journal.clear();
  { CtlServer server(info_); }
  EXPECT_THAT(platform().journal, Not(Contains("CloseStatsLib")));
}

TEST_F(CtlServerTest, UnknownOwnerOfUploadsIsReportedAndIgnored) {
  for (const auto& [owner, name] : {std::pair<Variant, std::string>{"nosuchuser", "nosuchuser"},
                                    {Variant(-5), "-5"},
                                    {Variant(true), "true"}}) {
    fakes::reset();
    info_["upload_owner"] = owner;
    CtlServer server(info_);
    EXPECT_TRUE(server.init(nullptr));
    EXPECT_TRUE(platform().logged(4, "No user " + name + ", whose files could be trusted"));
  }
}

TEST_F(CtlServerTest, OwnerOfUploadsIsNumberOrName) {
  for (const Variant& owner : {Variant(12345), Variant("12345"), Variant("root")}) {
    info_["upload_owner"] = owner;
    CtlServer server(info_);
    EXPECT_TRUE(server.init(nullptr));
    EXPECT_THAT(platform().log, IsEmpty());
  }
  utils::trustFilesOf("0");
}

TEST_F(CtlServerTest, SynchronousPersistSavesAtOnceAndReportsResult) {
  CtlServer server(info_);
  EXPECT_TRUE(server.persist(true));
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  fail(kSave);
  EXPECT_FALSE(server.persist(true));
  platform().onRun = nullptr;
}

TEST_F(CtlServerTest, FactoryResetDropsPendingSave) {
  CtlServer server(info_);
  server.persist(false);
  EXPECT_TRUE(server.resetToDefaults());
  platform().nowMs += 5001;
  server.service(0);
  server.service(0);
  EXPECT_THAT(platform().commands, ElementsAre("/bin/cfgmtd -c", kReboot));
}

TEST_F(CtlServerTest, RebootWithoutSaveOnlyReboots) {
  CtlServer server(info_);
  EXPECT_TRUE(server.reboot(false, 0, false));
  EXPECT_THAT(platform().commands, ElementsAre(kReboot));
}

TEST_F(CtlServerTest, RebootGoesOnIfSaveFails) {
  CtlServer server(info_);
  fail(kSave);
  server.reboot(false, 0, true);
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kReboot));
  EXPECT_EQ(platform().log.back(), (LogLine{"CtlServer", "reboot", 3, 0, "Failed to persist"}));
}

TEST_F(CtlServerTest, RebootWaitsEndlesslyEvenIfCommandFails) {
  CtlServer server(info_);
  fail(kReboot);
  platform().onSleep = [waits = 0](int milliseconds) mutable {
    if (milliseconds == 1000 && ++waits == 5) {
      throw LeaveWait();
    }
  };
  EXPECT_THROW(server.reboot(true, 0, false), LeaveWait);
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"CtlServer", "reboot", 3, 0, "Failed to perform reboot"},
                          LogLine{"CtlServer", "reboot", 6, 0, "Entering reboot wait mode"}));
}

TEST_F(CtlServerTest, ServicesAreStartedAndStoppedOnlyByPlatform) {
  CtlServer server(info_);
  platform().onService = [](const std::string& verb, const std::string& name) {
    return verb == "start" || name.empty();
  };
  ipc::messages::StartService start{Variant(Variant::Map{{"service", "ntpd; reboot"}})};
  EXPECT_TRUE(server.startService(start));
  ipc::messages::StopService stop{Variant(Variant::Map{{"service", "ntpd"}})};
  EXPECT_FALSE(server.stopService(stop));
  EXPECT_THAT(platform().journal, ElementsAre("EnableService ntpd; reboot", "DisableService ntpd"));
}

TEST_F(CtlServerTest, RepeatedServiceRequestsAreIndependent) {
  CtlServer server(info_);
  const Variant ntpd(Variant::Map{{"service", "ntpd"}});
  for (int i = 0; i < 2; ++i) {
    ipc::messages::StartService start{ntpd};
    EXPECT_TRUE(server.startService(start));
  }
  for (int i = 0; i < 2; ++i) {
    ipc::messages::StopService stop{ntpd};
    EXPECT_TRUE(server.stopService(stop));
  }
  EXPECT_THAT(platform().journal, ElementsAre("EnableService ntpd", "EnableService ntpd",
                                              "DisableService ntpd", "DisableService ntpd"));
}

TEST_F(CtlServerTest, NonTextServiceIsEmptyName) {
  CtlServer server(info_);
  ipc::messages::StartService none;
  EXPECT_TRUE(server.startService(none));
  ipc::messages::StopService number{Variant(Variant::Map{{"service", 12}})};
  EXPECT_TRUE(server.stopService(number));
  EXPECT_THAT(platform().journal, ElementsAre("EnableService ", "DisableService "));
}

}  // namespace
}  // namespace kova::ctlserver
