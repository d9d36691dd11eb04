#include "../Answer.h"
#include "../Command.h"
#include "../StopSignals.h"
#include "../Terminal.h"

namespace kova::ctl {
namespace {

Exit confirm() {
  if (!inputIsTerminal()) {
    return fail(Exit::Usage, "reset-defaults needs --yes when nobody can be asked");
  }
  std::string answer;
  const bool answered =
      ask("This erases the camera's configuration and reboots it. Continue? [y/N] ", answer);
  if (stopRequested()) {
    return stopStatus();
  }
  return answered && (answer == "y" || answer == "Y" || answer == "yes")
             ? Exit::Ok
             : fail(Exit::Local, "nothing was done");
}

}  // namespace

Action setUpResetDefaults(CommandLine& line) {
  auto yes = std::make_shared<bool>(false);
  line.Flag("-y,--yes", *yes, "Do not ask");
  line.Footer("The configuration is erased 5 s later, then the camera reboots.\n");
  return [yes](const Options& options) {
    if (const Exit confirmed = *yes ? Exit::Ok : confirm(); confirmed != Exit::Ok) {
      return confirmed;
    }
    ipc::messages::BaseRequestMessage request;
    request.functionName("ResetToDefaults");
    return askServer(options, request,
                     "The camera erases its configuration in 5 s, then reboots.\n");
  };
}

}  // namespace kova::ctl
