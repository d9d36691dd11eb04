#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "Command.h"
#include "Program.h"
#include "commands/Stats.h"

namespace kova::ctl {
namespace {

using tests::readText;

// The text of the manual page, without markup.
std::string manualPage() {
  std::string text = readText(KOVACTL_MANUAL);
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\' && at + 1 < text.size()) {
      at += text[at + 1] == 'f' ? 2 : 0;
      continue;
    }
    plain += text[at];
  }
  return plain;
}

bool isWordCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
}

bool hasWord(const std::string& text, const std::string& word) {
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    if ((at == 0 || !isWordCharacter(text[at - 1])) &&
        (end == text.size() || !isWordCharacter(text[end]))) {
      return true;
    }
  }
  return false;
}

struct Document {
  std::string name;
  std::string text;
};

// The text of the fish completion, with "-l NAME" replaced by "--NAME".
std::string fishCompletion() {
  std::string text = readText(KOVACTL_COMPLETIONS "/kovactl.fish");
  const std::string mark = " -l ";
  for (std::size_t at = text.find(mark); at != text.npos; at = text.find(mark, at)) {
    text.replace(at, mark.size(), " --");
  }
  return text;
}

std::vector<Document> documents() {
  return {{"manual page", manualPage()},
          {"bash completion", readText(KOVACTL_COMPLETIONS "/kovactl.bash")},
          {"fish completion", fishCompletion()},
          {"zsh completion", readText(KOVACTL_COMPLETIONS "/_kovactl")}};
}

// The names of all visible commands and subcommands and all long options.
void collect(const CLI::App& app, std::vector<std::string>& names) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) {
      names.push_back(sub->get_name());
      collect(*sub, names);
    }
  }
}

TEST(Documentation, ManualAndCompletionsAreComplete) {
  const Program program;
  std::vector<std::string> names;
  collect(program.parser(), names);
  ASSERT_GT(names.size(), 40U);
  for (const Document& document : documents()) {
    for (const std::string& name : names) {
      EXPECT_TRUE(hasWord(document.text, name)) << name << " is missing in the " << document.name;
    }
  }
}

TEST(Documentation, EveryCommandHasHelp) {
  const Program program;
  const std::string overview = program.parser().help();
  for (const Command& command : commands()) {
    EXPECT_FALSE(command.summary.empty()) << command.name;
    const CLI::App* sub = program.parser().get_subcommand(std::string(command.name));
    const std::string help = sub->help("kovactl");
    EXPECT_NE(help.find(std::string(command.summary)), help.npos) << help;
    EXPECT_NE(help.find("kovactl " + std::string(command.name)), help.npos) << help;
    EXPECT_EQ(hasWord(overview, std::string(command.name)), !command.group.empty());
  }
}

TEST(Documentation, EveryOptionHasDescription) {
  const Program program;
  const std::function<void(const CLI::App&)> check = [&check](const CLI::App& app) {
    for (const CLI::Option* option : app.get_options()) {
      EXPECT_FALSE(option->get_description().empty()) << app.get_name() << option->get_name();
    }
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
      check(*sub);
    }
  };
  check(program.parser());
}

TEST(Documentation, HelpAndManualListExitStatuses) {
  const Program program;
  const std::string help = program.parser().help();
  const std::string manual = manualPage();
  for (const auto& [status, code, meaning] : kExitMeanings) {
    const std::string number = std::to_string(static_cast<int>(status));
    EXPECT_NE(help.find("  " + number), help.npos) << number;
    EXPECT_NE(help.find(std::string(meaning)), help.npos) << meaning;
    EXPECT_NE(manual.find(".B " + number + "\n"), manual.npos) << number;
    if (status != ExitStatus::Ok) {
      EXPECT_NE(manual.find(".RB ( " + std::string(code) + " )\n"), manual.npos) << code;
    }
  }
}

TEST(Documentation, ManualListsStatisticsSections) {
  const std::string manual = manualPage();
  for (const StatsSection& section : statsSections()) {
    EXPECT_TRUE(hasWord(manual, std::string(section.flag))) << section.flag;
  }
}

}  // namespace
}  // namespace kova::ctl
