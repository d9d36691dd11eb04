#pragma once

#include <signal.h>
#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "ExitStatus.h"

namespace kova::ctl {

/// Writes text to standard output and flushes it.
/// @return false, with `errno` set, on failure
bool print(std::string_view text);

bool inputIsTerminal();
bool outputIsTerminal();
bool errorIsTerminal();

struct Size {
  std::size_t columns;
  std::size_t lines;
};
/// The size of the terminal on standard output or another stream; 80 by 24 if unknown.
Size terminalSize();
Size terminalSize(int stream);
/// The width of help texts: $COLUMNS if set, else the width of the terminal; at least 40.
std::size_t helpWidth();

/// Switches the terminal on standard output to its alternate screen and hides the cursor, for the
/// lifetime of the object.
class AlternateScreen {
 public:
  AlternateScreen();
  ~AlternateScreen();
  AlternateScreen(const AlternateScreen&) = delete;
  AlternateScreen& operator=(const AlternateScreen&) = delete;

  /// Replaces the content of the screen by these lines, clipped to its size.
  bool show(std::string_view text);
};

/// Disables the echo of the terminal on standard input for the lifetime of the object.
class NoEcho {
 public:
  NoEcho();
  ~NoEcho();
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

  /// Whether the echo is disabled.
  bool active() const { return active_; }

 private:
  termios saved_{};
  bool active_ = false;
};

/// Reads a line from standard input, without its line break.
/// @return false at the end of the input, on an error or on a stop signal
bool readLine(std::string& line);

/// Prints the prompt to standard error and reads the answer from standard input.
bool ask(std::string_view prompt, std::string& answer);
/// The same without echo.
bool askSecret(std::string_view prompt, std::string& answer);

/// Makes SIGINT, SIGTERM and SIGHUP interrupt blocking calls instead of ending the process, so
/// commands stop cleanly and restore the terminal. Ignored signals (nohup(1)) stay ignored.
void catchStopSignals();

/// Whether a stop signal was received.
bool stopRequested();

/// Blocks the stop signals for the lifetime of the object. Without it a signal between
/// stopRequested() and ppoll(2) would be missed; ppoll(2) unblocks them atomically with before().
class StopSignalsBlocked {
 public:
  StopSignalsBlocked();
  ~StopSignalsBlocked();
  StopSignalsBlocked(const StopSignalsBlocked&) = delete;
  StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;

  const sigset_t& before() const { return before_; }

 private:
  sigset_t before_{};
};

/// The exit status for the received signal: 130 for SIGINT, else 143.
ExitStatus stopStatus();

}  // namespace kova::ctl
