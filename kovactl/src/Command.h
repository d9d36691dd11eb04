#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ExitStatus.h"
#include "Options.h"

namespace CLI {
class App;
}

namespace kova::ctl {

/// Declares the arguments and options of a command. Values are written while the command line is
/// parsed, so they must live as long as the action that reads them.
///
/// Hides CLI11, whose header takes longer to compile than any command.
class CommandLine {
 public:
  explicit CommandLine(CLI::App& app) : app_(&app) {}

  /// A required argument.
  /// @param choices the accepted values; empty accepts any
  void argument(const char* name, std::string& value, const char* help,
                const std::vector<std::string>& choices = {});
  /// Zero or more arguments.
  void arguments(const char* name, std::vector<std::string>& values, const std::string& help);

  /// An option without a value.
  /// @param names     one or two names, such as "-y,--yes"
  /// @param excluding long names of options, already declared, that cannot be combined with it
  void flag(const char* names, bool& value, const char* help,
            const std::vector<std::string>& excluding = {});
  /// An option with a value; `type` names the value in the help.
  void option(const char* name, std::string& value, const char* type, const char* help);
  /// A repeatable option with a value.
  void option(const char* name, std::vector<std::string>& values, const char* type,
              const char* help);
  /// An option whose value may be omitted and is then "".
  void optionalValue(const char* name, std::optional<std::string>& value, const char* type,
                     const char* help);
  /// An option with a duration above 0, see parseDuration().
  void duration(const char* name, std::uint32_t& milliseconds, const std::string& help);

  /// A subcommand. A command that has subcommands requires one of them.
  CommandLine subcommand(const char* name, const char* help);
  /// Whether this subcommand was given.
  bool given() const;

  /// Sets the last paragraph of the help. Long lines are wrapped when it is printed.
  void footer(const std::string& text);
  /// Gets the help of any command, for example {"service", "start"}, or the overview for no words.
  /// @return false, with an error message in `text`, when there is no such command
  bool helpOf(const std::vector<std::string>& words, std::string& text) const;

 private:
  CLI::App* app_;
};

/// Runs a command whose arguments have been parsed.
using Action = std::function<ExitStatus(const Options&)>;

/// A command. Dispatch, help and completion are derived from the table of commands.
struct Command {
  std::string_view name;
  std::string_view group;    ///< heading in the help; "" hides the command
  std::string_view summary;  ///< one line of help
  /// Declares the arguments and returns the action, which owns their values.
  Action (*setUp)(CommandLine& line);
};

const std::vector<Command>& commands();

/// The end of the overview: examples, exit statuses, where to read more.
std::string overviewFooter();

// Defined in commands/: save, reboot, reset-defaults and exit-service in Maintenance.cpp, settings
// and reset-settings in Settings.cpp, put and firmware in Put.cpp, transfers and cancel in
// Transfers.cpp, monitor and listen in Monitor.cpp, help and __complete in Help.cpp, bridge and
// __ssh in Bridge.cpp, each other command in the file of its name.
Action setUpBridge(CommandLine& line);
Action setUpCall(CommandLine& line);
Action setUpCancel(CommandLine& line);
Action setUpComplete(CommandLine& line);
Action setUpExitService(CommandLine& line);
Action setUpFirmware(CommandLine& line);
Action setUpGet(CommandLine& line);
Action setUpHelp(CommandLine& line);
Action setUpInfo(CommandLine& line);
Action setUpListen(CommandLine& line);
Action setUpMetrics(CommandLine& line);
Action setUpMonitor(CommandLine& line);
Action setUpPut(CommandLine& line);
Action setUpReboot(CommandLine& line);
Action setUpResetDefaults(CommandLine& line);
Action setUpResetSettings(CommandLine& line);
Action setUpSave(CommandLine& line);
Action setUpService(CommandLine& line);
Action setUpSettings(CommandLine& line);
Action setUpSsh(CommandLine& line);
Action setUpStats(CommandLine& line);
Action setUpTimezones(CommandLine& line);
Action setUpTransfers(CommandLine& line);
Action setUpUser(CommandLine& line);

}  // namespace kova::ctl
