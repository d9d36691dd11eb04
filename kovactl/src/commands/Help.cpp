#include <cstdio>

#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../RequestFields.h"
#include "Stats.h"
#include "Timezones.h"

namespace kova::ctl {
namespace {

using Words = std::vector<std::string>;

Words sections() {
  Words words;
  for (const StatsSection& section : statsSections()) {
    words.emplace_back(section.flag);
  }
  return words;
}

Words endpoints() {
  return {kEndpoints.begin(), kEndpoints.end()};
}

Words commandWords() {
  Words words;
  for (const Command& command : commands()) {
    if (!command.group.empty()) {
      words.emplace_back(command.name);
    }
  }
  return words;
}

Words candidates(const std::string& topic, const std::string& word) {
  if (topic == "functions") {
    return functionNames();
  }
  if (topic == "fields") {
    return fieldAssignments(word);
  }
  if (topic == "sections") {
    return sections();
  }
  if (topic == "zones") {
    return installedZones();
  }
  if (topic == "commands") {
    return commandWords();
  }
  return topic == "endpoints" ? endpoints() : Words{};
}

}  // namespace

Action setUpHelp(CommandLine& line) {
  auto words = std::make_shared<std::vector<std::string>>();
  line.Arguments("COMMAND", *words, "A command, such as \"service start\"; none for the overview");
  return [words, line](const Options& options) {
    std::string text;
    if (line.HelpOf(*words, text)) {
      return present(options, text, text);
    }
    fail(ExitStatus::Usage, text);
    std::fputs("Try \"kovactl --help\".\n", stderr);
    return ExitStatus::Usage;
  };
}

Action setUpComplete(CommandLine& line) {
  auto topic = std::make_shared<std::string>();
  auto words = std::make_shared<Words>();
  line.Argument("TOPIC", *topic, "functions, fields, sections, zones, commands or endpoints");
  line.Arguments("WORD", *words, "The function whose fields to list");
  return [topic, words](const Options& options) {
    std::string text;
    for (const std::string& word : candidates(*topic, words->empty() ? "" : words->front())) {
      text += word + "\n";
    }
    return present(options, text, text);
  };
}

}  // namespace kova::ctl
