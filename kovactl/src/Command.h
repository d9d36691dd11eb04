#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string_view>
#include <vector>

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
  Action (*setUp)(CLI::App& app);
};

const std::vector<Command>& commands();

// One for each file in commands/.
Action setUpCall(CLI::App& app);
Action setUpComplete(CLI::App& app);
Action setUpExitService(CLI::App& app);
Action setUpFirmware(CLI::App& app);
Action setUpGet(CLI::App& app);
Action setUpListen(CLI::App& app);
Action setUpMonitor(CLI::App& app);
Action setUpPut(CLI::App& app);
Action setUpReboot(CLI::App& app);
Action setUpResetDefaults(CLI::App& app);
Action setUpResetSettings(CLI::App& app);
Action setUpSave(CLI::App& app);
Action setUpService(CLI::App& app);
Action setUpSettings(CLI::App& app);
Action setUpStats(CLI::App& app);
Action setUpUser(CLI::App& app);

}  // namespace kova::ctl
