#include "Exit.h"

#include <algorithm>
#include <cstdio>

#include "Text.h"

namespace kova::ctl {

const std::array<ExitMeaning, 9> kExitMeanings{{
    {Exit::Ok, "success"},
    {Exit::Refused, "the camera refused the request or failed to do it"},
    {Exit::Usage, "wrong usage"},
    {Exit::Unreachable, "the bus cannot be reached or used, or nobody there serves the request"},
    {Exit::NoAnswer, "no answer within the time-out"},
    {Exit::Unknown, "--wait ended without an event: the outcome is not known"},
    {Exit::Local, "a file, terminal or output of this side failed, or \"no\" was answered"},
    {Exit::Interrupted, "stopped by Ctrl-C"},
    {Exit::Terminated, "stopped by SIGTERM or SIGHUP"},
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

Exit exitForError(std::string_view dbusError) {
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
    return Exit::Unreachable;
  }
  return std::ranges::find(kNoAnswer, dbusError) != std::end(kNoAnswer) ? Exit::NoAnswer
                                                                        : Exit::Refused;
}

Exit fail(Exit status, std::string_view text) {
  std::fflush(stdout);
  std::fprintf(stderr, "kovactl: %s\n", printable(text).c_str());
  return status;
}

}  // namespace kova::ctl
