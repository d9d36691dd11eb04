#include "ExitStatus.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Terminal.h"
#include "Text.h"

namespace kova::ctl {

const std::array<ExitMeaning, 9> kExitMeanings{{
    {ExitStatus::Ok, "success"},
    {ExitStatus::Refused, "the camera refused the request or failed to carry it out"},
    {ExitStatus::Usage, "wrong usage"},
    {ExitStatus::Unreachable,
     "the bus cannot be reached or used, or no endpoint serves the request"},
    {ExitStatus::NoAnswer, "no answer within the time-out"},
    {ExitStatus::Unknown, "--wait timed out without an event: the outcome is unknown"},
    {ExitStatus::Local, "a local file, terminal or output failed, or the prompt was declined"},
    {ExitStatus::Interrupted, "stopped by Ctrl-C"},
    {ExitStatus::Terminated, "stopped by SIGTERM or SIGHUP"},
}};

std::string exitStatusHelp() {
  std::string help = "Exit status:\n";
  for (const auto& [status, meaning] : kExitMeanings) {
    std::string number = std::to_string(static_cast<int>(status));
    number.resize(std::max<std::size_t>(number.size(), 4), ' ');
    help += "  " + number + " " + std::string(meaning) + "\n";
  }
  return help;
}

ExitStatus exitForError(std::string_view dbusError) {
  constexpr std::string_view kUnreachable[] = {
      "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
      "org.freedesktop.DBus.Error.AccessDenied",   "org.freedesktop.DBus.Error.AuthFailed",
      "org.freedesktop.DBus.Error.Disconnected",   "org.freedesktop.DBus.Error.NoServer",
  };
  constexpr std::string_view kNoAnswer[] = {
      "org.freedesktop.DBus.Error.NoReply",
      "org.freedesktop.DBus.Error.Timeout",
      "org.freedesktop.DBus.Error.TimedOut",
  };
  if (std::ranges::find(kUnreachable, dbusError) != std::end(kUnreachable)) {
    return ExitStatus::Unreachable;
  }
  return std::ranges::find(kNoAnswer, dbusError) != std::end(kNoAnswer) ? ExitStatus::NoAnswer
                                                                        : ExitStatus::Refused;
}

ExitStatus fail(ExitStatus status, std::string_view text) {
  std::fflush(stdout);
  std::fprintf(stderr, "kovactl: %s\n", printable(text).c_str());
  return status;
}

ExitStatus show(std::string_view text) {
  return print(text) ? ExitStatus::Ok
                     : fail(ExitStatus::Local,
                            std::string("cannot write the output: ") + std::strerror(errno));
}

}  // namespace kova::ctl
