#include "kova/messages/Events.h"

#include <gtest/gtest.h>

#include "Normalized.h"

namespace kova::ipc::messages {
namespace {

using variant::Variant;
using Map = Variant::Map;

TEST(Events, EmptyEventReceivesEveryDefault) {
  expectDefaults<EventTransferRequestStatus>(
      {{"responseExpected", false}, {"requestId", std::uint64_t{0}}, {"status", kNotGiven}});
  expectDefaults<EventUpdateFirmwareFailure>(
      {{"responseExpected", false}, {"requestId", std::uint64_t{0}}, {"reason", kNotGiven}});
  expectDefaults<PlayState>(
      {{"responseExpected", false}, {"name", ""}, {"volume", -1}, {"timeoutMs", -1}});
}

TEST(Events, AllowedStatusIsCanonicalisedInAnyCase) {
  for (const std::string status :
       {"OK", "TRANSFER_TIMEOUT", "TRANSFER_BUSY", "TRANSFER_FAILED", "TRANSFER_TOOLARGE",
        "DISK_IO_FAILED", "VALIDATION_FAILED", "NOT_WHITELISTED", "_UNINITIALIZED_"}) {
    EXPECT_EQ(normalized<EventTransferRequestStatus>({{"status", status}}).status(), status);
  }
  EventTransferRequestStatus event;
  event.status("ok");
  EXPECT_EQ(event["status"], Variant("OK"));
  event.status("no such status");
  EXPECT_EQ(event["status"], Variant("OK"));
}

TEST(Events, UnknownReasonBecomesTimeOut) {
  for (const std::string reason : {"TRANSFER_TIMEOUT", "TRANSFER_BUSY", "TRANSFER_FAILED",
                                   "TRANSFER_TOOLARGE", "DISK_IO_FAILED", "FW_CHECK_FAILED",
                                   "FW_CHECK_INCOMPAT_HW", "FW_FLASH_FAILED", "_UNINITIALIZED_"}) {
    EXPECT_EQ(normalized<EventUpdateFirmwareFailure>({{"reason", reason}}).reason(), reason);
  }
  const std::pair<const char*, const char*> cases[] = {
      {"Fw_Flash_Failed", "FW_FLASH_FAILED"},
      {"disk_io_failed", "DISK_IO_FAILED"},
      {"fw_check_incompat_hw", "FW_CHECK_INCOMPAT_HW"},
      {"OK", "TRANSFER_TIMEOUT"},
      {"", "TRANSFER_TIMEOUT"},
      {"VALIDATION_FAILED", "TRANSFER_TIMEOUT"},
      {"FW_CHECK_FAILED ", "TRANSFER_TIMEOUT"},
      {"FW_CHECK", "TRANSFER_TIMEOUT"}};
  for (const auto& [given, reason] : cases) {
    EventUpdateFirmwareFailure event;
    event.reason(given);
    EXPECT_EQ(event["reason"], Variant(reason)) << given;
  }
}

TEST(Events, UnknownStateBecomesFirst) {
  for (const std::string name :
       {"RESET_BUTTON", "INITIALIZING", "WIFI_WAITING_INPUT", "WIFI_VALIDATING_INPUT",
        "WIFI_FAILURE", "WIFI_SUCCESS", "WIFI_OPERATING_STA", "MIC_TO_LED", "SNDOUT_TO_LED",
        "CONTROLLER_CONNECTED", "RTSP_CONNECTED", "WAITING_FOR_ADOPTION", "NETWORK_DISCONNECTED",
        "TRYING_FOR_1ST_CONNECTION", "CONSUMERS_DISCONNECTED", ""}) {
    EXPECT_EQ(normalized<PlayState>({{"name", name}}).name(), name);
  }
  EXPECT_EQ(normalized<PlayState>({{"name", "wifi_success"}}).name(), "WIFI_SUCCESS");
  EXPECT_EQ(normalized<PlayState>({{"name", "BLINK"}}).name(), "RESET_BUTTON");
}

TEST(Events, VolumeIsClampedToMinusOneToHundred) {
  const std::pair<int, int> cases[] = {{150, 100}, {101, 100}, {100, 100},
                                       {0, 0},     {-1, -1},   {-20, -1}};
  for (const auto& [sent, stored] : cases) {
    EXPECT_EQ(normalized<PlayState>({{"volume", sent}}).volume(), stored) << sent;
  }
}

TEST(Events, PlayStateTimeOutIsSigned) {
  auto play = normalized<PlayState>({{"timeoutMs", std::int64_t{-5}}});
  EXPECT_EQ(play["timeoutMs"], Variant(-5));
  EXPECT_EQ(play.timeoutMs(), -5);
}

}  // namespace
}  // namespace kova::ipc::messages
