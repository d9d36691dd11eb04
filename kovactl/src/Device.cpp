#include "Device.h"

namespace kova::ctl {
namespace {

using variant::Variant;

constexpr const char* kPath = "/kova";
constexpr const char* kDeviceInterface = "kova.Device1";

Variant property(const Variant& properties, std::string_view name) {
  const Variant* value = properties.Find(name);
  return value != nullptr ? *value : Variant();
}

// A structure of the time and the outcome.
void takeLastSave(const Variant& save, Device& device) {
  const Variant::Array& fields = save.Items();
  if (fields.size() == 2) {
    device.lastSave = fields[0].ToNumber<std::uint64_t>();
    device.lastSaveOutcome = fields[1].ToText();
  }
}

Device deviceOf(const Variant& properties) {
  Device device;
  device.model = property(properties, "Model").ToText();
  device.sysId = property(properties, "SysId");
  device.name = property(properties, "Name").ToText();
  device.firmwareVersion = property(properties, "FirmwareVersion").ToText();
  device.daemonVersion = property(properties, "DaemonVersion").ToText();
  device.bootId = property(properties, "BootId").ToText();
  device.savePending = property(properties, "SavePending").ToBool();
  device.resetPending = property(properties, "ResetPending").ToBool();
  takeLastSave(property(properties, "LastSave"), device);
  device.buttonReadable = property(properties, "ButtonReadable").ToBool();
  return device;
}

}  // namespace

ExitStatus readDevice(Objects& objects, Device& device, Objects::Answer& answer) {
  const ExitStatus asked = objects.Read(kPath, kDeviceInterface, answer);
  if (asked == ExitStatus::Ok && answer.error.empty()) {
    device = deviceOf(answer.value);
  }
  return asked;
}

}  // namespace kova::ctl
