#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kova/ipc/Objects.h"
#include "kova/variant/CameraInfo.h"

namespace kova::ctlserver {

/// Device state that changes at run time, see CtlServer::deviceState().
struct DeviceState {
  bool savePending = false;
  bool resetPending = false;
  bool buttonReadable = true;
  ipc::Moment lastSave = {};          ///< "OK" or "FAILED"
  std::uint32_t settingsChanges = 0;  ///< how often settings were stored

  bool operator==(const DeviceState&) const = default;
};

/// Publishes the device on the bus: interface kova.Device1 of "/kova", see
/// packaging/dbus/kova.Device1.xml.
class DeviceObject : public ipc::PublishedObject {
 public:
  static constexpr std::uint64_t kSignalMs = 200;
  /// Time from a failure to read the stored name to the next attempt.
  static constexpr std::uint64_t kRetryMs = 5000;

  /// Reads model and sysid from `info` and publishes the object. `bus` must outlive it; the
  /// endpoint must not have joined the bus yet.
  DeviceObject(const variant::CameraInfo& info, const DeviceState& now, ipc::Objects& bus);

  /// Signals changed properties, at most every kSignalMs; called on every pass. A signal that the
  /// bus refuses is retried on a later pass.
  void service(const DeviceState& now);

  ipc::PropertyValue read(std::size_t property) const override;
  ipc::MethodError call(std::size_t) override { return {}; }

 private:
  std::string name() const;

  ipc::Objects& bus_;
  std::string model_;
  std::string sysId_;
  std::string firmwareVersion_;
  std::string bootId_;
  DeviceState state_;
  DeviceState reported_;  ///< as last signalled
  std::uint64_t reportedMs_ = 0;
  mutable std::optional<std::string> name_;          ///< cache of the stored name
  mutable std::optional<std::uint64_t> nameReadMs_;  ///< last attempt to read the name
};

}  // namespace kova::ctlserver
