#include "ExitStatus.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Terminal.h"
#include "Text.h"

namespace kova::ctl {
namespace {

std::string failure;

}  // namespace

const std::array<ExitMeaning, 9> kExitMeanings{{
    {ExitStatus::Ok, "ok", "success"},
    {ExitStatus::Refused, "refused", "the camera refused the request or failed to carry it out"},
    {ExitStatus::Usage, "usage", "wrong usage"},
    {ExitStatus::Unreachable, "unreachable",
     "the bus cannot be reached or used, or no endpoint serves the request"},
    {ExitStatus::NoAnswer, "no-answer", "no answer within the time-out"},
    {ExitStatus::Unknown, "unknown", "--wait ended without the outcome"},
    {ExitStatus::Local, "local",
     "a local file, terminal or output failed, or the prompt was declined"},
    {ExitStatus::Interrupted, "interrupted", "stopped by Ctrl-C"},
    {ExitStatus::Terminated, "terminated", "stopped by SIGTERM or SIGHUP"},
}};

const ExitMeaning* findMeaning(int status) {
  const auto* const found =
      std::ranges::find(kExitMeanings, static_cast<ExitStatus>(status), &ExitMeaning::status);
  return found != kExitMeanings.end() ? found : nullptr;
}

const ExitMeaning& meaningOf(ExitStatus status) {
  static constexpr ExitMeaning kNone{ExitStatus::Local, "local", "ended with an unknown status"};
  const ExitMeaning* found = findMeaning(static_cast<int>(status));
  return found != nullptr ? *found : kNone;
}

std::string exitStatusHelp() {
  std::string help = "Exit status:\n";
  for (const auto& [status, code, meaning] : kExitMeanings) {
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
  if (status != ExitStatus::Ok) {
    failure = text;
  }
  std::fflush(stdout);  // keeps output and error in order on a terminal
  std::fprintf(stderr, "kovactl: %s\n", printable(text).c_str());
  return status;
}

const std::string& lastFailure() {
  return failure;
}

ExitStatus show(std::string_view text) {
  return print(text) ? ExitStatus::Ok
                     : fail(ExitStatus::Local,
                            std::string("cannot write the output: ") + std::strerror(errno));
}

}  // namespace kova::ctl
