#include <cstdio>

#include "../Client.h"
#include "../Command.h"
#include "../InstalledServices.h"
#include "../Output.h"
#include "../RequestFields.h"
#include "Stats.h"
#include "Timezones.h"

namespace kova::ctl {
namespace {

using Strings = std::vector<std::string>;

Strings sections() {
  Strings words;
  for (const StatsSection& section : statsSections()) {
    words.emplace_back(section.flag);
  }
  return words;
}

Strings endpoints() {
  return {kEndpoints.begin(), kEndpoints.end()};
}

Strings commandWords() {
  Strings words;
  for (const Command& command : commands()) {
    if (!command.group.empty()) {
      words.emplace_back(command.name);
    }
  }
  return words;
}

// The values of a field of a function, such as {"GetRequest", "what"}.
Strings values(const Strings& words) {
  if (words.size() != 2) {
    return {};
  }
  const std::string& field = words.back();
  return field == "service"    ? installedServices()
         : field == "timezone" ? installedZones()
                               : fieldValues(words.front(), field);
}

Strings candidates(const std::string& topic, const Strings& words) {
  if (topic == "functions") {
    return functionNames();
  }
  if (topic == "fields") {
    return fieldAssignments(words.empty() ? "" : words.front());
  }
  if (topic == "values") {
    return values(words);
  }
  if (topic == "sections") {
    return sections();
  }
  if (topic == "zones") {
    return installedZones();
  }
  if (topic == "services") {
    return installedServices();
  }
  if (topic == "commands") {
    return commandWords();
  }
  return topic == "endpoints" ? endpoints() : Strings{};
}

}  // namespace

Action setUpHelp(CommandLine& line) {
  auto words = std::make_shared<std::vector<std::string>>();
  line.arguments("COMMAND", *words, "A command, such as \"service start\"; none for the overview");
  return [words, line](const Options& options) {
    std::string text;
    if (line.helpOf(*words, text)) {
      return present(options, text, text);
    }
    fail(ExitStatus::Usage, text);
    std::fputs("Try \"kovactl --help\".\n", stderr);
    return ExitStatus::Usage;
  };
}

Action setUpComplete(CommandLine& line) {
  auto topic = std::make_shared<std::string>();
  auto words = std::make_shared<Strings>();
  line.argument("TOPIC", *topic,
                "functions, fields, values, sections, services, zones, commands or endpoints");
  line.arguments("WORD", *words, "The function whose fields to list, and the field whose values");
  return [topic, words](const Options& options) {
    std::string text;
    for (const std::string& word : candidates(*topic, *words)) {
      text += word + "\n";
    }
    return present(options, text, text);
  };
}

}  // namespace kova::ctl
