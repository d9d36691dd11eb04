#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Terminal.h"
#include "../Text.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

// The camera never answers a reboot request. Only an error can arrive, and errors arrive at once.
constexpr std::uint32_t kRefusalMs = 500;

// Numbers without a unit used to be milliseconds. A large one probably comes from an old script.
constexpr std::uint32_t kDoubtfulMs = 100 * 1000;

bool parseDelay(const std::string& text, std::uint32_t& delayMs, std::string& error) {
  if (!parseDuration(text, delayMs)) {
    error = "--delay: \"" + text + "\" is not a duration: " + std::string(kDurationForms);
    return false;
  }
  const bool plain = text.find_first_not_of("0123456789.") == text.npos;
  if (plain && delayMs >= kDoubtfulMs) {
    error = "--delay: write " + text + "s if seconds are meant, " + text + "ms if milliseconds are";
    return false;
  }
  return true;
}

ExitStatus reboot(const Options& options, const std::string& delay) {
  std::uint32_t delayMs = 0;
  std::string error;
  if (!parseDelay(delay, delayMs, error)) {
    return fail(ExitStatus::Usage, error);
  }
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  ipc::messages::Reboot request;
  request.delayMs(delayMs);
  const auto sent = client.requestUnanswered(request, kRefusalMs);
  if (sent.status != ExitStatus::Ok) {
    return sent.status;
  }
  const std::string when = delayMs == 0 ? "" : " in " + humanSeconds(delayMs);
  return present(
      options, {},
      "The camera reboots" + when + (sent.vanished ? "; it has already left the bus.\n" : ".\n"));
}

ExitStatus confirm() {
  if (!inputIsTerminal()) {
    return fail(ExitStatus::Usage,
                "no terminal to prompt on: use --yes to erase the configuration");
  }
  std::string answer;
  const bool answered =
      ask("This erases the camera's configuration and reboots it. Continue? [y/N] ", answer);
  if (stopRequested()) {
    return stopStatus();
  }
  return answered && (answer == "y" || answer == "Y" || answer == "yes")
             ? ExitStatus::Ok
             : fail(ExitStatus::Local, "nothing was done");
}

}  // namespace

Action setUpSave(CommandLine& line) {
  auto sync = std::make_shared<bool>(false);
  line.flag("--sync", *sync, "Write at once and wait for completion");
  line.footer(
      "Without --sync the camera writes 5 s after the last save request and reports no failure. "
      "\"kovactl reboot\" saves too.");
  return [sync](const Options& options) {
    constexpr std::uint32_t kWriteMs = 25000;  // flash is slow
    Options patient = options;
    patient.timeoutMs = options.timeoutMs.value_or(*sync ? kWriteMs : Options::kAnswerTimeoutMs);
    ipc::messages::SaveToFlash request;
    request.sync(*sync);
    return requestFromServer(patient, request,
                             *sync ? "Saved to flash.\n" : "The camera saves to flash in 5 s.\n",
                             "writing to flash failed; see the camera's log");
  };
}

Action setUpReboot(CommandLine& line) {
  auto delay = std::make_shared<std::string>("0");
  line.option("--delay", *delay, "TIME", "Wait before the reboot (0)");
  line.footer(
      "Saves the configuration to flash first. The camera does not answer this request and serves "
      "no other until it is up again. If it leaves the bus at once, that is success.");
  return [delay](const Options& options) { return reboot(options, *delay); };
}

Action setUpResetDefaults(CommandLine& line) {
  auto yes = std::make_shared<bool>(false);
  line.flag("-y,--yes", *yes, "Do not prompt");
  line.footer("The camera erases its configuration after 5 s, then reboots.");
  return [yes](const Options& options) {
    if (const ExitStatus confirmed = *yes ? ExitStatus::Ok : confirm();
        confirmed != ExitStatus::Ok) {
      return confirmed;
    }
    ipc::messages::BaseRequestMessage request;
    request.functionName("ResetToDefaults");
    return requestFromServer(options, request,
                             "The camera erases its configuration in 5 s, then reboots.\n");
  };
}

Action setUpExitService(CommandLine& line) {
  line.footer(
      "Completes a pending save or factory reset first. A supervisor restarts the server where one "
      "is configured.");
  return [](const Options& options) {
    ipc::messages::BaseRequestMessage request;
    request.functionName("ExitService");
    return requestFromServer(options, request, "The control server ends.\n");
  };
}

}  // namespace kova::ctl
