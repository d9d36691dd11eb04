#include <set>

#include "DispatchFixture.h"
#include "kova/messages/Catalog.h"

namespace kova::ctlserver {
namespace {

/// Identifies the operation that a row of the table calls by its effects on the platform.
class DispatchTableTest : public DispatchFixture {
 protected:
  /// The response, or an empty value if there was none.
  Variant ask(const std::string& functionName, Map fields = {}) {
    fields["functionName"] = functionName;
    EXPECT_TRUE(handle(std::move(fields)));
    const auto responses = std::exchange(platform().bus.responses, {});
    return responses.empty() ? Variant() : responses.back().second;
  }

  static Variant status(std::uint64_t code) { return Variant(code); }
};

TEST_F(DispatchTableTest, ListsFunctionsInOrder) {
  EXPECT_THAT(
      CtlCommandsHandler::functionNames(),
      ElementsAre("GetSystemStats", "Reboot", "ChangeDeviceSettings", "UpdateFirmwareRequest",
                  "GetRequest", "PutRequest", "ResetDeviceSettings", "SaveToFlash",
                  "ChangeUsernamePassword", "EnableUsernamePassword", "DisableUsernamePassword",
                  "ExitService", "ResetToDefaults", "StartService", "StopService"));
}

TEST_F(DispatchTableTest, EveryRequestOfCatalogueHasRow) {
  const auto names = CtlCommandsHandler::functionNames();
  std::set<std::string_view> rows(names.begin(), names.end());
  for (const auto& message : ipc::messages::catalog()) {
    EXPECT_EQ(rows.erase(message.name), message.event ? 0U : 1U) << message.name;
  }
  EXPECT_THAT(rows, ElementsAre("ExitService", "ResetDeviceSettings", "ResetToDefaults"))
      << "requests without fields of their own, which have no class";
}

TEST_F(DispatchTableTest, ChangedSettingsAreAnsweredByDefaultWithPayload) {
  Variant response = ask("ChangeDeviceSettings", {{"name", "Yard"}});
  EXPECT_EQ(response["statusCode"], status(0));
  EXPECT_EQ(response["payload"],
            Variant(Map{{"name", "Yard"}, {"timezone", "UTC"}, {"region", "US"}}));
  EXPECT_EQ(platform().config.values["resolv.host.1.name"], "Yard");
}

TEST_F(DispatchTableTest, RestoredSettingsAreAnsweredOnlyOnRequest) {
  EXPECT_TRUE(ask("ResetDeviceSettings").isEmpty());
  EXPECT_EQ(platform().config.values["resolv.host.1.name"], "Camera");
  Variant response = ask("ResetDeviceSettings", {{"responseExpected", true}});
  EXPECT_EQ(response["statusCode"], status(0));
  EXPECT_EQ(response["payload"],
            Variant(Map{{"name", "Camera"}, {"timezone", "GMT"}, {"region", "US"}}));
}

TEST_F(DispatchTableTest, AdministratorNameIsInPayload) {
  Variant response = ask("ChangeUsernamePassword");
  EXPECT_EQ(response["statusCode"], status(0));
  EXPECT_EQ(response["payload"], Variant(Map{{"username", "admin"}}));
  response = ask("ChangeUsernamePassword", {{"username", "admin"}, {"passwordOld", "wrong"}});
  EXPECT_EQ(response["statusCode"], status(1));
  EXPECT_TRUE(response["payload"].isEmpty());
}

TEST_F(DispatchTableTest, DisablingLocksAndEnablingUnlocks) {
  EXPECT_EQ(ask("DisableUsernamePassword")["statusCode"], status(0));
  EXPECT_EQ(platform().config.values["users.1.password"], "!old$secret");
  EXPECT_EQ(ask("EnableUsernamePassword")["statusCode"], status(0));
  EXPECT_EQ(platform().config.values["users.1.password"], "old$secret");
  platform().config.initResult = false;
  EXPECT_EQ(ask("DisableUsernamePassword")["statusCode"], status(1));
  EXPECT_EQ(ask("EnableUsernamePassword")["statusCode"], status(1));
}

TEST_F(DispatchTableTest, TransfersReachTheirOperationUnanswered) {
  const Map fields = {{"responseExpected", true}};
  // Refused for the missing "what", in a log line of the operation.
  EXPECT_TRUE(ask("GetRequest", fields).isEmpty());
  EXPECT_TRUE(ask("PutRequest", fields).isEmpty());
  using testing::MatchesRegex;
  EXPECT_THAT(platform().logTexts(),
              ElementsAre(MatchesRegex("Unrecognized GetRequest: .*timeoutMs.*"),
                          MatchesRegex("Unrecognized PutRequest: .*timeoutMs.*")));
  platform().log.clear();
  const Map update = {{"from", "manager"},
                      {"uri", "http://127.0.0.1:1/fw"},
                      {"timeoutMs", 20000},
                      {"responseExpected", true}};
  EXPECT_TRUE(ask("UpdateFirmwareRequest", update).isEmpty());
  EXPECT_TRUE(ask("UpdateFirmwareRequest", update).isEmpty());
  EXPECT_THAT(platform().log, SizeIs(1)) << "the second finds the first";
  EXPECT_THAT(platform().log, Contains(testing::Field(&LogLine::function, "updateFirmware")));
}

TEST_F(DispatchTableTest, RequestItselfIsNotRepaired) {
  ipc::messages::BaseRequestMessage request{
      Variant(Map{{"functionName", "StopService"}, {"service", 12}})};
  bool rejected = false;
  platform().bus.handling = request.id();
  EXPECT_TRUE(handler_.HandleRequest(request, rejected));
  EXPECT_EQ(*request.find("service"), Variant(12)) << "only the typed copy is";
}

}  // namespace
}  // namespace kova::ctlserver
