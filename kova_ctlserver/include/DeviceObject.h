#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kova/ipc/Objects.h"
#include "kova/variant/CameraInfo.h"

namespace kova::ctlserver {

/// What the daemon knows of the device and may change, see CtlServer::deviceState().
struct DeviceState {
  bool savePending = false;
  bool resetPending = false;
  bool buttonReadable = true;
  ipc::Moment lastSave = {};          ///< "OK" or "FAILED"
  std::uint32_t settingsChanges = 0;  ///< how often settings were stored

  bool operator==(const DeviceState&) const = default;
};

/// Shows the device on the bus: the interface kova.Device1 of "/kova", see
/// packaging/dbus/kova.Device1.xml.
class DeviceObject : public ipc::PublishedObject {
 public:
  static constexpr std::uint64_t kSignalMs = 200;
  /// Time from a failure to read the stored name to the next attempt.
  static constexpr std::uint64_t kRetryMs = 5000;

  /// Publishes what the description tells. Both must outlive this object; the endpoint must not
  /// have joined the bus yet.
  DeviceObject(const variant::CameraInfo& info, const DeviceState& now, ipc::Objects& bus);

  /// Signals what has changed, at most every kSignalMs; called at every pass. What the bus does not
  /// take is signalled later.
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
  DeviceState told_;  ///< as clients know it
  std::uint64_t toldMs_ = 0;
  mutable std::optional<std::string> name_;  ///< as stored; read when somebody asks for it
  mutable std::optional<std::uint64_t> nameFailedMs_;  ///< when it could not be read
};

}  // namespace kova::ctlserver
