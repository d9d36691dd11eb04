#include "../Command.h"
#include "../DeviceSettings.h"

namespace kova::ctl {

Action setUpResetSettings(CommandLine& line) {
  line.Footer("Sets the model's own name and the time zone GMT, and prints the settings then.\n");
  return [](const Options& options) {
    ipc::messages::BaseRequestMessage request;
    request.functionName("ResetDeviceSettings");
    return askSettings(options, request);
  };
}

}  // namespace kova::ctl
