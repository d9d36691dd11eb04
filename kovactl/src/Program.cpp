#include "Program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "LibraryLog.h"
#include "StopSignals.h"
#include "Terminal.h"

namespace kova::ctl {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  kovactl stats --watch                   figures, refreshed in place\n"
    "  kovactl settings name=Porch             rename the camera\n"
    "  kovactl put logo https://10.0.0.2/logo.png --file logo.png --wait\n"
    "  kovactl call GetSystemStats wifi:=false --json\n"
    "\n";

constexpr const char* kSeeAlso =
    "\n\"kovactl COMMAND --help\" tells more of a command, kovactl(1) all of it.";

std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const auto rest = app.remaining(true);
  std::string text = error.what();
  if (error.get_name() != "RequiredError" || text.find("subcommand") == std::string::npos) {
    return text;
  }
  return rest.empty() ? "a command is missing" : "there is no command \"" + rest.front() + "\"";
}

/// What a command line that is not to be acted upon is answered with: the help, or what is wrong.
Exit explain(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream text;
    app.exit(error, text);
    return print(text.str()) ? Exit::Ok : Exit::Local;
  }
  fail(Exit::Usage, complaint(app, error));
  const auto chosen = app.get_subcommands();
  const std::string name = chosen.empty() ? "" : chosen.front()->get_name() + " ";
  std::fprintf(stderr, "Try \"kovactl %s--help\".\n", name.c_str());
  return Exit::Usage;
}

}  // namespace

Program::Program()
    : app_(std::make_unique<CLI::App>("Talks to the camera's control server over the local bus.",
                                      "kovactl")) {
  AddOptions();
  AddCommands();
  app_->footer(kExamples + exitStatusHelp() + kSeeAlso);
}

Program::~Program() = default;

void Program::AddOptions() {
  app_->set_help_flag("-h,--help", "Print this help");
  app_->set_version_flag("--version", "kovactl " KOVA_VERSION, "Print the version");
  CommandLine line(*app_);
  line.Option("--bus", options_.bus, "ADDRESS",
              "Address of the bus (else $KOVA_BUS_ADDRESS, else unix:path=/run/kova/bus)");
  line.Seconds("--timeout", timeoutMs_, "How long to wait for an answer (10)");
  line.Flag("--json", options_.json, "Print JSON, for programs");
  line.Flag("-v,--verbose", options_.verbose, "Show what the bus library logs");
  line.Footer("The options of \"kovactl --help\", such as --json, may stand here too.\n");
  app_->get_formatter()->column_width(30);
  app_->get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_->get_formatter()->label("REQUIRED", "");
  app_->require_subcommand(1);
  app_->fallthrough();
}

void Program::AddCommands() {
  for (const Command& command : commands()) {
    CLI::App* sub = app_->add_subcommand(std::string(command.name), std::string(command.summary));
    CommandLine line(*sub);
    sub->final_callback([this, action = command.setUp(line)] { action_ = action; });
    // Set last: its own subcommands would inherit it.
    sub->group(std::string(command.group));
  }
}

Exit Program::Run(int argc, const char* const* argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return explain(*app_, error);
  }
  if (timeoutMs_ != 0) {
    options_.timeoutMs = timeoutMs_;
  }
  library_log::verbose(options_.verbose);
  if (!options_.bus.empty()) {
    setenv("KOVA_BUS_ADDRESS", options_.bus.c_str(), 1);
  }
  catchStopSignals();
  return action_(options_);
}

}  // namespace kova::ctl
