#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include "Text.h"

namespace kova::ctl {

void CommandLine::Argument(const char* name, std::string& value, const char* help,
                           const std::vector<std::string>& choices) {
  CLI::Option* argument = app_->add_option(name, value, help)->required()->type_name("");
  if (!choices.empty()) {
    argument->check(CLI::IsMember(choices));
  }
}

void CommandLine::Arguments(const char* name, std::vector<std::string>& values,
                            const std::string& help) {
  app_->add_option(name, values, help)->type_name("");
}

void CommandLine::Flag(const char* names, bool& value, const char* help,
                       const std::vector<std::string>& excluding) {
  CLI::Option* flag = app_->add_flag(names, value, help);
  for (const std::string& other : excluding) {
    flag->excludes(other);
  }
}

void CommandLine::Option(const char* name, std::string& value, const char* type, const char* help) {
  app_->add_option(name, value, help)->type_name(type);
}

void CommandLine::Option(const char* name, std::uint32_t& value, const char* type,
                         const char* help) {
  app_->add_option(name, value, help)->type_name(type);
}

void CommandLine::Option(const char* name, std::vector<std::string>& values, const char* type,
                         const char* help) {
  app_->add_option(name, values, help)
      ->type_name(type)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void CommandLine::OptionalValue(const char* name, std::optional<std::string>& value,
                                const char* type, const char* help) {
  const auto take = [&value](const std::string& text) { value = text; };
  app_->add_option_function<std::string>(name, take, help)->type_name(type)->expected(0, 1);
}

void CommandLine::Seconds(const char* name, std::uint32_t& milliseconds, const std::string& help) {
  const auto take = [name, &milliseconds](const std::string& text) {
    if (!parseSeconds(text, milliseconds)) {
      throw CLI::ValidationError(name, "\"" + text + "\" is no time-out in seconds");
    }
  };
  app_->add_option_function<std::string>(name, take, help)->type_name("SECONDS");
}

CommandLine CommandLine::Subcommand(const char* name, const char* help) {
  app_->require_subcommand(1);
  return CommandLine(*app_->add_subcommand(name, help));
}

bool CommandLine::Given() const {
  return app_->parsed();
}

void CommandLine::Footer(const std::string& text) {
  app_->footer(text);
}

}  // namespace kova::ctl
