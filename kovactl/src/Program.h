#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

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
  const CLI::App& Parser() const { return app_; }

 private:
  void AddOptions();
  void AddCommands();
  std::string Complaint(const CLI::ParseError& error) const;
  Exit Explain(const CLI::ParseError& error) const;

  CLI::App app_;
  Options options_;
  std::string timeout_;
  std::function<Exit(const Options&)> action_;
};

}  // namespace kova::ctl
