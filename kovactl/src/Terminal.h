#pragma once

#include <termios.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kova::ctl {

/// Writes text to standard output and hands it on at once.
/// @return false, with `errno` set, when it could not be written
bool print(std::string_view text);

bool inputIsTerminal();
bool outputIsTerminal();
bool errorIsTerminal();

/// Columns and lines of the terminal on standard output; 80 by 24 when it does not tell.
struct Size {
  std::size_t columns;
  std::size_t lines;
};
Size terminalSize();

/// The other screen of the terminal on standard output, its cursor hidden, for as long as the
/// object lives.
class AlternateScreen {
 public:
  AlternateScreen();
  ~AlternateScreen();
  AlternateScreen(const AlternateScreen&) = delete;
  AlternateScreen& operator=(const AlternateScreen&) = delete;

  /// Shows these lines in place of what stands there, cut to the size of the screen.
  bool Show(std::string_view text);
};

/// Switches off the echo of the terminal on standard input for as long as the object lives.
class NoEcho {
 public:
  NoEcho();
  ~NoEcho();
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

  /// Whether the echo is off.
  bool Active() const { return active_; }

 private:
  termios saved_{};
  bool active_ = false;
};

/// Reads a line from standard input, without its line break.
/// @return false at the end of the input, on an error, or when a stop signal came
bool readLine(std::string& line);

/// Asks on standard error and reads the answer from standard input.
bool ask(std::string_view prompt, std::string& answer);
/// The same without echo.
bool askSecret(std::string_view prompt, std::string& answer);

}  // namespace kova::ctl
