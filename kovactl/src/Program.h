#pragma once

#include <cstdint>
#include <memory>

#include "Command.h"
#include "ExitStatus.h"
#include "Options.h"

namespace kova::ctl {

/// The command line of kovactl: all commands, their common options and the help.
class Program {
 public:
  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Parses the command line and runs its command.
  ExitStatus run(int argc, const char* const* argv);

  /// The parser, for inspection.
  const CLI::App& parser() const { return *app_; }

 private:
  void addOptions();
  void addCommands();
  ExitStatus chooseBus();

  std::unique_ptr<CLI::App> app_;
  Options options_;
  std::uint32_t timeoutMs_ = 0;  // 0 when not given
  Action action_;
};

}  // namespace kova::ctl
