#include "../Command.h"
#include "../Device.h"
#include "../Output.h"
#include "../Text.h"
#include "../TransferRecord.h"

namespace kova::ctl {
namespace {

using variant::Variant;

Variant resultOf(const Device& device) {
  return Variant::Map{
      {"model", device.model},
      {"sysId", device.sysId},
      {"name", device.name},
      {"firmwareVersion", device.firmwareVersion},
      {"daemonVersion", device.daemonVersion},
      {"bootId", device.bootId},
      {"savePending", device.savePending},
      {"resetPending", device.resetPending},
      {"lastSave",
       Variant::Map{{"time", timeResult(device.lastSave)}, {"outcome", device.lastSaveOutcome}}},
      {"buttonReadable", device.buttonReadable},
  };
}

std::string lastSave(const Device& device) {
  if (device.lastSaveOutcome.empty()) {
    return "none since the control server started";
  }
  return timeText(device.lastSave) + ", " + printable(device.lastSaveOutcome);
}

std::string tableOf(const Device& device) {
  const auto text = [](const std::string& value) { return value.empty() ? "-" : printable(value); };
  return table({
      {"Model", text(device.model)},
      {"System id", cell(device.sysId)},
      {"Name", text(device.name)},
      {"Firmware", text(device.firmwareVersion)},
      {"Control server", text(device.daemonVersion)},
      {"Boot", text(device.bootId)},
      {"Save", device.savePending ? "pending" : "not pending"},
      {"Last save", lastSave(device)},
      {"Factory reset", device.resetPending ? "pending" : "not pending"},
      {"Reset button", device.buttonReadable ? "readable" : "not readable"},
  });
}

ExitStatus info(const Options& options) {
  Objects objects(options);
  if (const ExitStatus opened = objects.open(); opened != ExitStatus::Ok) {
    return opened;
  }
  Device device;
  Objects::Answer answer;
  if (const ExitStatus asked = readDevice(objects, device, answer); asked != ExitStatus::Ok) {
    return asked;
  }
  return answer.error.empty()
             ? present(options, resultOf(device), tableOf(device))
             : reportFailure(answer, "the description of the camera", options.host);
}

}  // namespace

Action setUpInfo(CommandLine& line) {
  line.footer("\"kovactl stats\" shows figures, \"kovactl settings\" what can be changed.");
  return info;
}

}  // namespace kova::ctl
