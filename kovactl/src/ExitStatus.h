#pragma once

#include <array>
#include <string>
#include <string_view>

namespace kova::ctl {

/// The exit statuses of kovactl; kExitMeanings documents them and feeds --help.
enum class ExitStatus : int {
  Ok = 0,
  Refused = 1,
  Usage = 2,
  Unreachable = 3,
  NoAnswer = 4,
  Unknown = 5,
  Local = 6,
  Interrupted = 130,
  Terminated = 143,
};

struct ExitMeaning {
  ExitStatus status;
  std::string_view code;  ///< in JSON
  std::string_view meaning;
};

extern const std::array<ExitMeaning, 9> kExitMeanings;

/// The meaning of the exit status of another kovactl; null if kovactl has no such status.
const ExitMeaning* findMeaning(int status);

const ExitMeaning& meaningOf(ExitStatus status);

/// The exit statuses and their meanings, one per line, for the help.
std::string exitStatusHelp();

/// The exit status for a D-Bus error reply.
ExitStatus exitForError(std::string_view dbusError);

/// Prints "kovactl: TEXT" to standard error, escaped by printable(), and returns `status`.
ExitStatus fail(ExitStatus status, std::string_view text);

/// The text of the last fail() with a status other than Ok; "" if there was none.
const std::string& lastFailure();

/// Prints the output of a command to standard output; ExitStatus::Local when that fails.
ExitStatus show(std::string_view text);

}  // namespace kova::ctl
