#pragma once

#include "kova/messages/BaseMessage.h"

/// The requests that the control server accepts. Times are in milliseconds.
namespace kova::ipc::messages {

/// Asks for statistics, one flag per section of the reply.
class GetSystemStats : public Request<GetSystemStats> {
 public:
  static constexpr std::string_view kName = "GetSystemStats";
  KOVA_FIELD(Flag, responseExpected, true)
  KOVA_FIELD(Flag, memory, true)
  KOVA_FIELD(Flag, cpu, true)
  KOVA_FIELD(Flag, cpuInfo, true)
  KOVA_FIELD(Flag, loadavg, true)
  KOVA_FIELD(Flag, network, true)
  KOVA_FIELD(Flag, wifi, true)
  KOVA_FIELD(Flag, uptime, true)
  KOVA_FIELD(Flag, battery, true)
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, memoryField, cpuField, cpuInfoField, loadavgField,
                 networkField, wifiField, uptimeField, batteryField);
  using Request::Request;
};

/// Reboots the camera after a delay.
class Reboot : public Request<Reboot> {
 public:
  static constexpr std::string_view kName = "Reboot";
  KOVA_FIELD(Number<std::uint32_t>, delayMs, 0)
  KOVA_FIELD(Flag, responseExpected, false)
  static constexpr auto kSchema = std::tuple(delayMsField, responseExpectedField);  // kept: 23
  using Request::Request;
};

/// Changes some of the device settings and reads back the others.
class ChangeDeviceSettings : public Request<ChangeDeviceSettings> {
 public:
  static constexpr std::string_view kName = "ChangeDeviceSettings";
  KOVA_FIELD(Flag, responseExpected, true)
  KOVA_FIELD(Text, name, kUninitialized)
  KOVA_FIELD(Text, timezone, kUninitialized)
  KOVA_FIELD(Text, region, kUninitialized)
  KOVA_FIELD(Number<std::int32_t>, timelapseminutes, -1, -1, 1)  // kept: 22
  KOVA_FIELD(Flag, persist, false)                               // kept: 77
  static constexpr auto kSchema = std::tuple(responseExpectedField, nameField, timezoneField,
                                             regionField, timelapseminutesField, persistField);
  using Request::Request;
};

/// Downloads a firmware image and installs it.
class UpdateFirmwareRequest : public Request<UpdateFirmwareRequest> {
 public:
  static constexpr std::string_view kName = "UpdateFirmwareRequest";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Number<std::uint32_t>, timeoutMs, 0)
  KOVA_FIELD(Text, uri, kUninitialized)
  static constexpr auto kSchema = std::tuple(responseExpectedField, timeoutMsField, uriField);
  using Request::Request;
};

/// Uploads a file of the camera to `uri`.
class GetRequest : public Request<GetRequest> {
 public:
  static constexpr std::string_view kName = "GetRequest";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Flag, disableEvents, false)
  KOVA_FIELD(Choice<5>, what, kUninitialized,
             {"snapshot", "supportInfo", "eventSnapshot", "eventHeatmap", kUninitialized})
  KOVA_FIELD(Text, filename, kUninitialized)
  KOVA_FIELD(Text, uri, kUninitialized)
  KOVA_FIELD(Container, formFields)
  KOVA_FIELD(Number<std::uint32_t>, timeoutMs, 0)
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, disableEventsField, whatField, filenameField, uriField,
                 formFieldsField, timeoutMsField);
  using Request::Request;
};

/// Downloads a file from `uri` and installs it on the camera.
class PutRequest : public Request<PutRequest> {
 public:
  static constexpr std::string_view kName = "PutRequest";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Choice<3>, what, kUninitialized, {"logo", "sound", kUninitialized})
  KOVA_FIELD(Text, uri, kUninitialized)
  KOVA_FIELD(Number<std::uint32_t>, timeoutMs, 0)
  KOVA_FIELD(Text, hash, kUninitialized)
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, whatField, uriField, timeoutMsField, hashField);
  using Request::Request;
};

/// Saves the configuration to flash, at once or after a quiet period.
class SaveToFlash : public Request<SaveToFlash> {
 public:
  static constexpr std::string_view kName = "SaveToFlash";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Flag, sync, false)
  static constexpr auto kSchema = std::tuple(responseExpectedField, syncField);
  using Request::Request;
};

/// Reads the administrator's name, or changes name and password.
class ChangeUsernamePassword : public Request<ChangeUsernamePassword> {
 public:
  static constexpr std::string_view kName = "ChangeUsernamePassword";
  KOVA_FIELD(Flag, responseExpected, true)
  KOVA_FIELD(Text, username, kUninitialized)
  KOVA_FIELD(Text, passwordOld, kUninitialized)
  KOVA_FIELD(Text, passwordNew, kUninitialized)
  static constexpr auto kSchema =
      std::tuple(responseExpectedField, usernameField, passwordOldField, passwordNewField);
  using Request::Request;
};

/// Unlocks the administrator's password.
class EnableUsernamePassword : public Request<EnableUsernamePassword> {
 public:
  static constexpr std::string_view kName = "EnableUsernamePassword";
  KOVA_FIELD(Flag, responseExpected, true)
  static constexpr auto kSchema = std::tuple(responseExpectedField);
  using Request::Request;
};

/// Locks the administrator's password.
class DisableUsernamePassword : public Request<DisableUsernamePassword> {
 public:
  static constexpr std::string_view kName = "DisableUsernamePassword";
  KOVA_FIELD(Flag, responseExpected, true)
  static constexpr auto kSchema = std::tuple(responseExpectedField);
  using Request::Request;
};

/// Starts a system service.
class StartService : public Request<StartService> {
 public:
  static constexpr std::string_view kName = "StartService";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Text, service, "")
  static constexpr auto kSchema = std::tuple(responseExpectedField, serviceField);
  using Request::Request;
};

/// Stops a system service.
class StopService : public Request<StopService> {
 public:
  static constexpr std::string_view kName = "StopService";
  KOVA_FIELD(Flag, responseExpected, false)
  KOVA_FIELD(Text, service, "")
  static constexpr auto kSchema = std::tuple(responseExpectedField, serviceField);
  using Request::Request;
};

}  // namespace kova::ipc::messages
