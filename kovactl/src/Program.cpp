#include "Program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>

#include "BusDiagnosis.h"
#include "Output.h"
#include "Remote.h"
#include "Suggestion.h"
#include "Terminal.h"
#include "Text.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kNameColumn = 24;

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    column_width(kNameColumn);
    label("SUBCOMMAND", "COMMAND");
    label("Subcommands", "Commands");
    label("Positionals", "Arguments");
  }

  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    text.erase(text.find_last_not_of('\n') + 1);
    return wrap(text + "\n", helpWidth());
  }

  std::string make_description(const CLI::App* app) const override {
    return app->get_description() + "\n\n";
  }

  std::string make_footer(const CLI::App* app) const override {
    const auto timed = app->get_options([](const CLI::Option* option) {
      return option->get_type_name().find("TIME") != std::string::npos;
    });
    return (timed.empty() ? ""
                          : "TIME is a number of seconds, or has a unit: 500ms, 2s, 5min.\n\n") +
           CLI::Formatter::make_footer(app);
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    const bool many = option->get_expected_max() == CLI::detail::expected_max_vector_size;
    return (type.empty() ? "" : " " + type) + (many ? " ..." : "");
  }
};

// The visible subcommands of a command.
std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) {
      names.push_back(sub->get_name());
    }
  }
  return names;
}

// The innermost command given, for example "start" in "service start".
const CLI::App& innermost(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : innermost(*chosen.back());
}

std::string pathOf(const CLI::App& app) {
  return (app.get_parent() != nullptr ? pathOf(*app.get_parent()) + " " : "") + app.get_name();
}

// The long options that a command accepts: its own and those of its parents.
std::vector<std::string> optionNames(const CLI::App& app) {
  std::vector<std::string> names =
      app.get_parent() != nullptr ? optionNames(*app.get_parent()) : std::vector<std::string>{};
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

bool isOption(const std::string& word) {
  return word.size() > 1 && word.front() == '-';
}

bool takes(const CLI::App& app, const std::string& option) {
  return std::ranges::any_of(app.get_options(),
                             [&option](const CLI::Option* own) { return own->check_name(option); });
}

std::string unknownOption(const CLI::App& app, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  if (takes(app, name)) {
    return "\"" + name + "\" belongs after \"" + pathOf(app) + "\"";
  }
  return "\"" + name + "\" is not an option" +
         (name.starts_with("--") ? didYouMean(name, optionNames(app)) : "");
}

bool is(const CLI::ParseError& error, CLI::ExitCodes code) {
  return error.get_exit_code() == static_cast<int>(code);
}

std::string missingCommand(const CLI::App& command, const std::vector<std::string>& rest) {
  constexpr std::size_t kFew = 5;
  const std::vector<std::string> names = commandNames(command);
  if (rest.empty()) {
    return "a command is missing" + (names.size() > kFew ? "" : ": " + alternatives(names));
  }
  return isOption(rest.front()) ? unknownOption(command, rest.front())
                                : notFound("command", rest.front(), names);
}

std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = innermost(app);
  const auto rest = app.remaining(true);
  const std::string text = error.what();
  if (is(error, CLI::ExitCodes::RequiredError)) {
    return commandNames(command).empty()
               ? text.substr(0, text.rfind(" is required")) + " is missing"
               : missingCommand(command, rest);
  }
  if (is(error, CLI::ExitCodes::ExtrasError) && !rest.empty()) {
    const auto option = std::ranges::find_if(rest, isOption);
    return option != rest.end() ? unknownOption(command, *option)
                                : "unexpected argument \"" + rest.front() + "\"";
  }
  if (is(error, CLI::ExitCodes::ArgumentMismatch)) {
    return text.substr(0, text.find(':')) + " needs a value";
  }
  // Drop the name of a positional argument: unlike that of an option, the user never typed it.
  const bool isOfArgument = is(error, CLI::ExitCodes::ValidationError) && text.front() != '-';
  const std::size_t name = isOfArgument ? text.find(": ") : text.npos;
  return name != text.npos ? text.substr(name + 2) : text;
}

// Whether --json was given. Works on command lines that do not parse.
bool asksForJson(int argc, const char* const* argv) {
  return std::any_of(argv, argv + argc,
                     [](const char* word) { return std::string_view(word) == "--json"; });
}

// CLI11 reports --help and --version as parse errors, too: prints the text, or the error.
ExitStatus explain(const CLI::App& app, const CLI::ParseError& error, const Options& options) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream text;
    app.exit(error, text);
    return print(text.str()) ? ExitStatus::Ok : ExitStatus::Local;
  }
  fail(ExitStatus::Usage, complaint(app, error));
  std::fprintf(stderr, "Try \"%s --help\".\n", pathOf(innermost(app)).c_str());
  return conclude(options, ExitStatus::Usage);
}

}  // namespace

void CommandLine::argument(const char* name, std::string& value, const char* help,
                           const std::vector<std::string>& choices) {
  CLI::Option* option = app_->add_option(name, value, help)->required()->type_name("");
  if (!choices.empty()) {
    option->check([choices, kind = "file to " + app_->get_name()](const std::string& text) {
      return std::ranges::find(choices, text) != choices.end() ? std::string()
                                                               : notFound(kind, text, choices);
    });
  }
}

void CommandLine::arguments(const char* name, std::vector<std::string>& values,
                            const std::string& help) {
  app_->add_option(name, values, help)->type_name("");
}

void CommandLine::flag(const char* names, bool& value, const char* help,
                       const std::vector<std::string>& excluding) {
  CLI::Option* flag = app_->add_flag(names, value, help);
  for (const std::string& other : excluding) {
    flag->excludes(other);
  }
}

void CommandLine::option(const char* name, std::string& value, const char* type, const char* help) {
  app_->add_option(name, value, help)->type_name(type);
}

void CommandLine::option(const char* name, std::vector<std::string>& values, const char* type,
                         const char* help) {
  app_->add_option(name, values, help)
      ->type_name(type)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void CommandLine::optionalValue(const char* name, std::optional<std::string>& value,
                                const char* type, const char* help) {
  const auto take = [&value](const std::string& text) { value = text; };
  app_->add_option_function<std::string>(name, take, help)->type_name(type)->expected(0, 1);
}

void CommandLine::duration(const char* name, std::uint32_t& milliseconds, const std::string& help) {
  const auto take = [name, &milliseconds](const std::string& text) {
    if (!parseDuration(text, milliseconds)) {
      throw CLI::ValidationError(
          name, "\"" + text + "\" is not a duration: " + std::string(kDurationForms));
    }
    if (milliseconds == 0) {
      throw CLI::ValidationError(name, "must be more than 0");
    }
  };
  app_->add_option_function<std::string>(name, take, help)->type_name("TIME");
}

CommandLine CommandLine::subcommand(const char* name, const char* help) {
  app_->require_subcommand(1);
  return CommandLine(*app_->add_subcommand(name, help));
}

bool CommandLine::given() const {
  return app_->parsed();
}

void CommandLine::footer(const std::string& text) {
  app_->footer(text);
}

bool CommandLine::helpOf(const std::vector<std::string>& words, std::string& text) const {
  const CLI::App* app = app_;
  while (app->get_parent() != nullptr) {
    app = app->get_parent();
  }
  std::string path = app->get_name();
  for (const std::string& word : words) {
    const auto found =
        app->get_subcommands([&word](const CLI::App* sub) { return sub->get_name() == word; });
    if (found.empty()) {
      text = notFound("command", word, commandNames(*app));
      return false;
    }
    app = found.front();
    path += " " + word;
  }
  text = app->get_formatter()->make_help(app, path, CLI::AppFormatMode::Normal);
  return true;
}

Program::Program()
    : app_(std::make_unique<CLI::App>("Talk to the camera's control server over the local bus.",
                                      "kovactl")) {
  addOptions();
  addCommands();
  app_->footer(overviewFooter());
}

Program::~Program() = default;

void Program::addOptions() {
  app_->set_help_flag("-h,--help", "Print this help");
  app_->set_version_flag("-V,--version", "kovactl " KOVA_VERSION, "Print the version");
  CommandLine line(*app_);
  line.option("-H,--host", options_.host, "HOST",
              "Camera to reach through ssh: [USER@]HOST[:PORT]");
  line.option("--bus", options_.bus, "ADDRESS",
              "Address of the bus ($KOVA_BUS_ADDRESS or unix:path=/run/kova/bus)");
  line.duration("--timeout", timeoutMs_, "How long to wait for an answer (10s)");
  line.flag("--json", options_.json, "Print JSON");
  line.flag("-v,--verbose", options_.verbose, "Print the messages of the bus library");
  line.footer("The options of \"kovactl --help\", such as --json, are accepted here too.");
  app_->formatter(std::make_shared<HelpFormatter>());
  app_->require_subcommand(1);
  app_->fallthrough();
}

void Program::addCommands() {
  for (const Command& command : commands()) {
    CLI::App* sub = app_->add_subcommand(std::string(command.name), std::string(command.summary));
    CommandLine line(*sub);
    sub->final_callback([this, action = command.setUp(line)] { action_ = action; });
    // Set last, because subcommands inherit it.
    sub->group(std::string(command.group));
  }
}

ExitStatus Program::chooseBus() {
  if (app_->count("--host") > 0) {  // even if empty: never fall back to the local machine
    Remote remote;
    std::string error;
    if (!parseRemote(options_.host, remote, error)) {
      return fail(ExitStatus::Usage, error);
    }
    if (!options_.bus.empty()) {
      return fail(ExitStatus::Usage, "--host and --bus exclude each other");
    }
    watchSsh();
    setenv("KOVA_BUS_ADDRESS", remoteBusAddress(options_.host).c_str(), 1);
  } else if (!options_.bus.empty()) {
    if (const std::string fault = addressFault(options_.bus); !fault.empty()) {
      return fail(ExitStatus::Usage, fault);
    }
    setenv("KOVA_BUS_ADDRESS", options_.bus.c_str(), 1);
  }
  return ExitStatus::Ok;
}

ExitStatus Program::run(int argc, const char* const* argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    options_.json = asksForJson(argc, argv);
    return explain(*app_, error, options_);
  }
  if (timeoutMs_ != 0) {
    options_.timeoutMs = timeoutMs_;
  }
  library_log::verbose(options_.verbose);
  if (const ExitStatus chosen = chooseBus(); chosen != ExitStatus::Ok) {
    return conclude(options_, chosen);
  }
  catchStopSignals();
  return conclude(options_, action_(options_));
}

}  // namespace kova::ctl
