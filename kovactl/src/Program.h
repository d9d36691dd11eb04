#pragma once

#include <cstdint>
#include <memory>

#include "Command.h"
#include "Exit.h"
#include "Options.h"

namespace kova::ctl {

/// The command line of kovactl: every subcommand of the table, the options they share, the help.
class Program {
 public:
  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Parses the command line and does what it says.
  Exit Run(int argc, const char* const* argv);

  /// The parser, for whatever describes the command line.
  const CLI::App& Parser() const { return *app_; }

 private:
  void AddOptions();
  void AddCommands();

  std::unique_ptr<CLI::App> app_;
  Options options_;
  std::uint32_t timeoutMs_ = 0;  // 0 when it is not given
  Action action_;
};

}  // namespace kova::ctl
