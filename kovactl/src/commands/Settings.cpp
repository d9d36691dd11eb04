#include "../Assignments.h"
#include "../Command.h"
#include "../DeviceSettings.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kFooter =
    "Settings:\n"
    "  name=TEXT             the camera's name\n"
    "  timezone=ZONE         for example Europe/Paris\n"
    "  region=TEXT           a region of the form Area/City sets the time zone too\n"
    "  timelapse=on|off      only on models that have it\n"
    "  sound-on-boot=on|off  whether a sound is played at boot\n"
    "\n"
    "Changes last until the next reboot unless they are saved: \"kovactl save\".\n";

Exit run(const Options& options, const std::vector<std::string>& arguments) {
  variant::Variant given = variant::Variant::Map{};
  std::string error;
  ipc::messages::ChangeDeviceSettings request;
  if (!parseAssignments(arguments, given, error) || !fillSettings(given, request, error)) {
    return fail(Exit::Usage, error);
  }
  return askSettings(options, request);
}

}  // namespace

Action setUpSettings(CommandLine& line) {
  auto arguments = std::make_shared<std::vector<std::string>>();
  line.Arguments("SETTING", *arguments, "Changes, as name=value; none shows the settings");
  line.Footer(kFooter);
  return [arguments](const Options& options) { return run(options, *arguments); };
}

}  // namespace kova::ctl
