#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "Child.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;

TEST(Help, CommandEqualsOption) {
  for (const auto& [asked, flag] :
       std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>>{
           {{"help"}, {"--help"}},
           {{"help", "stats"}, {"stats", "--help"}},
           {{"help", "service", "start"}, {"service", "start", "--help"}}}) {
    const Result help = run(asked);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out, run(flag).out);
    EXPECT_THAT(help.out, HasSubstr("Usage: kovactl"));
  }
  EXPECT_EQ(run({"-V"}).out, run({"--version"}).out);
  EXPECT_THAT(run({"-V"}).out, ::testing::StartsWith("kovactl "));
}

std::size_t widest(const std::string& text) {
  std::size_t most = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line.erase(line.find_last_not_of('\r') + 1);
    most = std::max(most, line.size());
  }
  return most;
}

TEST(Help, FitsTerminalWidth) {
  unsetenv("COLUMNS");
  const std::size_t onPipe = widest(run({"settings", "--help"}).out);
  EXPECT_LE(onPipe, 80U);
  EXPECT_GT(onPipe, 70U);
  Child child({"settings", "--help"}, Child::On::Terminal);  // of 60 columns
  const std::string shown = child.wait().out;
  EXPECT_LE(widest(shown), 60U);
  EXPECT_GT(widest(shown), 50U);
  setenv("COLUMNS", "200", 1);
  EXPECT_GT(widest(run({"settings", "--help"}).out), 80U);
  unsetenv("COLUMNS");
}

}  // namespace
}  // namespace kova::ctl::testing
