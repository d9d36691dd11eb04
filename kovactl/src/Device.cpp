#include "Device.h"

namespace kova::ctl {
namespace {

using variant::Variant;

constexpr const char* kDevicePath = "/kova";
constexpr const char* kDeviceInterface = "kova.Device1";

Variant property(const Variant& properties, std::string_view name) {
  const Variant* value = properties.find(name);
  return value != nullptr ? *value : Variant();
}

// LastSave is a structure of time and outcome.
void takeLastSave(const Variant& save, Device& device) {
  const Variant::Array& fields = save.items();
  if (fields.size() == 2) {
    device.lastSave = fields[0].toNumber<std::uint64_t>();
    device.lastSaveOutcome = fields[1].toText();
  }
}

Device deviceOf(const Variant& properties) {
  Device device;
  device.model = property(properties, "Model").toText();
  device.sysId = property(properties, "SysId");
  device.name = property(properties, "Name").toText();
  device.firmwareVersion = property(properties, "FirmwareVersion").toText();
  device.daemonVersion = property(properties, "DaemonVersion").toText();
  device.bootId = property(properties, "BootId").toText();
  device.savePending = property(properties, "SavePending").toBool();
  device.resetPending = property(properties, "ResetPending").toBool();
  takeLastSave(property(properties, "LastSave"), device);
  device.buttonReadable = property(properties, "ButtonReadable").toBool();
  return device;
}

}  // namespace

ExitStatus readDevice(Objects& objects, Device& device, Objects::Answer& answer) {
  const ExitStatus asked = objects.read(kDevicePath, kDeviceInterface, answer);
  if (asked == ExitStatus::Ok && answer.error.empty()) {
    device = deviceOf(answer.value);
  }
  return asked;
}

}  // namespace kova::ctl
