#include "Program.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Command.h"
#include "LibraryLog.h"
#include "StopSignals.h"
#include "Terminal.h"
#include "Text.h"

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

std::string checkSeconds(const std::string& text) {
  std::uint32_t milliseconds = 0;
  return parseSeconds(text, milliseconds) ? "" : "\"" + text + "\" is no time-out in seconds";
}

}  // namespace

Program::Program() : app_("Talks to the camera's control server over the local bus.", "kovactl") {
  AddOptions();
  AddCommands();
  app_.footer(kExamples + exitStatusHelp() + kSeeAlso);
}

Program::~Program() = default;

void Program::AddOptions() {
  app_.set_help_flag("-h,--help", "Print this help");
  app_.set_version_flag("--version", "kovactl " KOVA_VERSION, "Print the version");
  app_.add_option("--bus", options_.bus,
                  "Address of the bus (else $KOVA_BUS_ADDRESS, else unix:path=/run/kova/bus)")
      ->type_name("ADDRESS");
  app_.add_option("--timeout", timeout_, "How long to wait for an answer (10)")
      ->type_name("SECONDS")
      ->check(checkSeconds);
  app_.add_flag("--json", options_.json, "Print JSON, for programs");
  app_.add_flag("-v,--verbose", options_.verbose, "Show what the bus library logs");
  app_.footer("The options of \"kovactl --help\", such as --json, may stand here too.\n");
  app_.get_formatter()->column_width(30);
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app_.get_formatter()->label("REQUIRED", "");
  app_.require_subcommand(1);
  app_.fallthrough();
}

void Program::AddCommands() {
  for (const Command& command : commands()) {
    CLI::App* sub = app_.add_subcommand(std::string(command.name), std::string(command.summary));
    // A group of the subcommand's own subcommands would be inherited from it.
    sub->final_callback([this, action = command.setUp(*sub)] { action_ = action; });
    sub->group(std::string(command.group));
  }
}

std::string Program::Complaint(const CLI::ParseError& error) const {
  const auto rest = app_.remaining(true);
  std::string text = error.what();
  if (error.get_name() != "RequiredError" || text.find("subcommand") == std::string::npos) {
    return text;
  }
  return rest.empty() ? "a command is missing" : "there is no command \"" + rest.front() + "\"";
}

Exit Program::Explain(const CLI::ParseError& error) const {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream text;
    app_.exit(error, text);
    return print(text.str()) ? Exit::Ok : Exit::Local;
  }
  fail(Exit::Usage, Complaint(error));
  const auto chosen = app_.get_subcommands();
  const std::string name = chosen.empty() ? "" : chosen.front()->get_name() + " ";
  std::fprintf(stderr, "Try \"kovactl %s--help\".\n", name.c_str());
  return Exit::Usage;
}

Exit Program::Run(int argc, const char* const* argv) {
  try {
    app_.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return Explain(error);
  }
  if (!timeout_.empty()) {
    parseSeconds(timeout_, options_.timeoutMs.emplace());
  }
  library_log::verbose(options_.verbose);
  if (!options_.bus.empty()) {
    setenv("KOVA_BUS_ADDRESS", options_.bus.c_str(), 1);
  }
  catchStopSignals();
  return action_(options_);
}

}  // namespace kova::ctl
