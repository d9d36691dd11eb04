#pragma once

#include <array>
#include <string>
#include <string_view>

namespace kova::ctl {

/// What kovactl ends with. The meanings stand in kExitMeanings, from which --help is made.
enum class Exit : int {
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
  Exit status;
  std::string_view meaning;
};

extern const std::array<ExitMeaning, 9> kExitMeanings;

/// The meanings as lines of help, one a status.
std::string exitStatusHelp();

/// The status for the D-Bus error that a request got instead of an answer.
Exit exitForError(std::string_view dbusError);

/// Writes "kovactl: TEXT" to standard error, made safe for a terminal, and returns `status`.
Exit fail(Exit status, std::string_view text);

}  // namespace kova::ctl
