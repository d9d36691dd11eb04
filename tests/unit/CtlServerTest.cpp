#include "CtlServer.h"

#include "UnitTest.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {
namespace {

class CtlServerTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    static_cast<Variant&>(info_) = Variant(kPlainCamera);
  }

  variant::CameraInfo info_;
};

TEST_F(CtlServerTest, ConstructionHasNoVisibleEffect) {
  { CtlServer server(info_); }
  EXPECT_THAT(platform().journal, IsEmpty());
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

TEST_F(CtlServerTest, SecondSaveRequestPostponesWrite) {
  CtlServer server(info_);
  server.persist(false);
  platform().nowMs += 4000;
  server.persist(false);
  platform().nowMs += 5000;
  server.service(0);
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 1;
  server.service(0);
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
}

TEST_F(CtlServerTest, RebootGoesOnIfSaveFails) {
  CtlServer server(info_);
  failRunOf(kSave);
  EXPECT_TRUE(server.reboot(false, 0, true));
  EXPECT_THAT(platform().commands, ElementsAre(kSave, kReboot));
  EXPECT_EQ(platform().log.back(), (LogLine{"CtlServer", "reboot", 3, 0, "Failed to persist"}));
}

TEST_F(CtlServerTest, RebootWaitsEndlesslyEvenIfCommandFails) {
  CtlServer server(info_);
  failRunOf(kReboot);
  platform().onSleep = [waits = 0](int milliseconds) mutable {
    if (milliseconds == 1000 && ++waits == 5) {
      throw LeaveWait();
    }
  };
  EXPECT_THROW(server.reboot(true, 0, false), LeaveWait);
  EXPECT_THAT(platform().commands, ElementsAre(kReboot)) << "there is nothing to save";
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"CtlServer", "reboot", 3, 0, "Failed to perform reboot"},
                          LogLine{"CtlServer", "reboot", 6, 0, "Entering reboot wait mode"}));
}

TEST_F(CtlServerTest, ServicesAreStartedAndStoppedOnlyByPlatform) {
  CtlServer server(info_);
  platform().onService = [](const std::string& verb, const std::string& name) {
    return (verb == "start") == (name != "ntpd");
  };
  for (const Map& fields : {Map{{"service", "ntpd"}}, Map{{"service", "ntpd"}},
                            Map{{"service", "x; reboot"}}, Map{{"service", 12}}, Map{}}) {
    const bool isNtpd = fields == Map{{"service", "ntpd"}};
    ipc::messages::StartService start{Variant(fields)};
    EXPECT_EQ(server.startService(start), !isNtpd);
    ipc::messages::StopService stop{Variant(fields)};
    EXPECT_EQ(server.stopService(stop), isNtpd);
  }
  EXPECT_THAT(
      platform().journal,
      ElementsAre("EnableService ntpd", "DisableService ntpd", "EnableService ntpd",
                  "DisableService ntpd", "EnableService x; reboot", "DisableService x; reboot",
                  "EnableService ", "DisableService ", "EnableService ", "DisableService "));
}

}  // namespace
}  // namespace kova::ctlserver
