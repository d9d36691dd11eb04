#include "Command.h"

namespace kova::ctl {
namespace {

constexpr std::string_view kDevice = "The camera";
constexpr std::string_view kTransfers = "Files";
constexpr std::string_view kBus = "The bus";
constexpr std::string_view kHelp = "Help";

constexpr const char* kExamples =
    "Examples:\n"
    "  kovactl stats --watch            statistics, refreshed in place\n"
    "  kovactl settings name=Porch      rename the camera\n"
    "  kovactl put logo https://10.0.0.2/logo.png --file logo.png --wait\n"
    "  kovactl call GetSystemStats wifi:=false --json\n"
    "  kovactl -H root@10.0.0.5 stats   the same on a remote camera, through ssh\n"
    "\n";

constexpr const char* kSeeAlso =
    "\nSee \"kovactl help COMMAND\" for a command and kovactl(1) for the full manual.\n";

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> all{
      {"stats", kDevice, "Show memory, processor, network and other statistics", setUpStats},
      {"info", kDevice, "Show model, versions and pending work", setUpInfo},
      {"metrics", kDevice, "Print metrics for Prometheus, as OpenMetrics text", setUpMetrics},
      {"settings", kDevice, "Show or change settings such as name and time zone", setUpSettings},
      {"timezones", kDevice, "List the available time zones", setUpTimezones},
      {"reset-settings", kDevice, "Reset name and time zone to their defaults", setUpResetSettings},
      {"user", kDevice, "Show, change, enable or disable the administrator's account", setUpUser},
      {"service", kDevice, "List, start or stop system services", setUpService},
      {"save", kDevice, "Save the configuration to flash", setUpSave},
      {"reboot", kDevice, "Save the configuration and reboot", setUpReboot},
      {"reset-defaults", kDevice, "Erase the configuration and reboot with factory defaults",
       setUpResetDefaults},
      {"exit-service", kDevice, "Stop the control server", setUpExitService},
      {"put", kTransfers, "Have the camera fetch and install a logo or a sound", setUpPut},
      {"get", kTransfers, "Have the camera upload a picture or its support archive", setUpGet},
      {"firmware", kTransfers, "Have the camera fetch and install a firmware image", setUpFirmware},
      {"transfers", kTransfers, "Show the camera's transfers and their outcomes", setUpTransfers},
      {"cancel", kTransfers, "Cancel a transfer", setUpCancel},
      {"call", kBus, "Send any request and print its answer", setUpCall},
      {"monitor", kBus, "Print all messages on the bus", setUpMonitor},
      {"listen", kBus, "Register an endpoint and print what it receives", setUpListen},
      {"bridge", kBus, "Connect standard input and output with the bus", setUpBridge},
      {"help", kHelp, "Show the help of a command", setUpHelp},
      {"__complete", "", "Print candidates for shell completion", setUpComplete},
      {"__ssh", "", "Become the ssh of a connection", setUpSsh},
  };
  return all;
}

std::string overviewFooter() {
  return kExamples + exitStatusHelp() + kSeeAlso;
}

}  // namespace kova::ctl
