#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Exit.h"
#include "Options.h"

namespace kova::ctl {

/// Runs a subcommand once its arguments are parsed.
using Action = std::function<Exit(const Options&)>;

/// A subcommand. Dispatch, help and completion follow from the table of these.
struct Command {
  std::string_view name;
  std::string_view group;    ///< heading in the help; "" hides the command
  std::string_view summary;  ///< one line of help
  /// Declares the arguments; what it returns holds their values.
  Action (*setUp)(CommandLine& line);
};

const std::vector<Command>& commands();

// One for each file in commands/.
Action setUpCall(CommandLine& line);
Action setUpComplete(CommandLine& line);
Action setUpExitService(CommandLine& line);
Action setUpFirmware(CommandLine& line);
Action setUpGet(CommandLine& line);
Action setUpListen(CommandLine& line);
Action setUpMonitor(CommandLine& line);
Action setUpPut(CommandLine& line);
Action setUpReboot(CommandLine& line);
Action setUpResetDefaults(CommandLine& line);
Action setUpResetSettings(CommandLine& line);
Action setUpSave(CommandLine& line);
Action setUpService(CommandLine& line);
Action setUpSettings(CommandLine& line);
Action setUpStats(CommandLine& line);
Action setUpUser(CommandLine& line);

}  // namespace kova::ctl
