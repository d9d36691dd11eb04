#pragma once

#include "kova/messages/BaseMessage.h"

/// The events that the control server sends. Times are in milliseconds.
namespace kova::ipc::messages {

/// How the transfer of a GetRequest or PutRequest ended.
class EventTransferRequestStatus : public Request<EventTransferRequestStatus> {
 public:
  static constexpr std::string_view kName = "EventTransferRequestStatus";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Number<std::uint64_t>, requestId, 0)
  // kept: 28
  KOVA_FIELD(Choice<9>, status, kUninitialized,
             {"OK", "TRANSFER_TIMEOUT", "TRANSFER_BUSY", "TRANSFER_FAILED", "TRANSFER_TOOLARGE",
              "DISK_IO_FAILED", "VALIDATION_FAILED", "NOT_WHITELISTED", kUninitialized})
  static constexpr auto kSchema = std::tuple(responseExpectedField, requestIdField, statusField);
  using Request::Request;
};

/// Why a firmware update failed.
class EventUpdateFirmwareFailure : public Request<EventUpdateFirmwareFailure> {
 public:
  static constexpr std::string_view kName = "EventUpdateFirmwareFailure";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Number<std::uint64_t>, requestId, 0)
  KOVA_FIELD(Choice<9>, reason, kUninitialized,
             {"TRANSFER_TIMEOUT", "TRANSFER_BUSY", "TRANSFER_FAILED", "TRANSFER_TOOLARGE",
              "DISK_IO_FAILED", "FW_CHECK_FAILED", "FW_CHECK_INCOMPAT_HW", "FW_FLASH_FAILED",
              kUninitialized})
  static constexpr auto kSchema = std::tuple(responseExpectedField, requestIdField, reasonField);
  using Request::Request;
};

/// Asks the sounds-and-LEDs process to play a state's pattern.
class PlayState : public Request<PlayState> {
 public:
  static constexpr std::string_view kName = "PlayState";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Choice<16>, name, "",
             {"RESET_BUTTON", "INITIALIZING", "WIFI_WAITING_INPUT", "WIFI_VALIDATING_INPUT",
              "WIFI_FAILURE", "WIFI_SUCCESS", "WIFI_OPERATING_STA", "MIC_TO_LED", "SNDOUT_TO_LED",
              "CONTROLLER_CONNECTED", "RTSP_CONNECTED", "WAITING_FOR_ADOPTION",
              "NETWORK_DISCONNECTED", "TRYING_FOR_1ST_CONNECTION", "CONSUMERS_DISCONNECTED", ""})
  KOVA_FIELD(Number<std::int32_t>, volume, -1, -1, 100)  // percent; -1: not given
  // kept: 25
  KOVA_FIELD(Number<std::int32_t>, timeoutMs, -1)  // -1: not given
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, nameField, volumeField, timeoutMsField);
  using Request::Request;
};

}  // namespace kova::ipc::messages
