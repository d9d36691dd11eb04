#include "Command.h"

namespace kova::ctl {
namespace {

constexpr std::string_view kDevice = "The camera";
constexpr std::string_view kTransfers = "Files";
constexpr std::string_view kBus = "The bus";

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> all{
      {"stats", kDevice, "Show memory, processor, network and other figures", setUpStats},
      {"settings", kDevice, "Show or change name, time zone, region and the like", setUpSettings},
      {"reset-settings", kDevice, "Put name and time zone back to their defaults",
       setUpResetSettings},
      {"user", kDevice, "show, change, enable or disable the administrator's account", setUpUser},
      {"service", kDevice, "Start or stop a system service", setUpService},
      {"save", kDevice, "Save the configuration to flash", setUpSave},
      {"reboot", kDevice, "Save the configuration and reboot", setUpReboot},
      {"reset-defaults", kDevice, "Erase the configuration and reboot with factory defaults",
       setUpResetDefaults},
      {"exit-service", kDevice, "End the control server", setUpExitService},
      {"put", kTransfers, "Have the camera fetch and install a logo or a sound", setUpPut},
      {"get", kTransfers, "Have the camera upload a picture or its support archive", setUpGet},
      {"firmware", kTransfers, "Have the camera fetch and install a firmware image", setUpFirmware},
      {"call", kBus, "Send any request and print its answer", setUpCall},
      {"monitor", kBus, "Print what passes on the bus", setUpMonitor},
      {"listen", kBus, "Be an endpoint and print what arrives", setUpListen},
      {"__complete", "", "Print candidates for shell completion", setUpComplete},
  };
  return all;
}

}  // namespace kova::ctl
