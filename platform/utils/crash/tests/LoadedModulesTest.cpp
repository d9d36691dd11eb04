#include "LoadedModules.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace kova::utils {
namespace {

int ofProgram = 0;

std::uintptr_t address(const void* place) {
  return reinterpret_cast<std::uintptr_t>(place);
}

TEST(LoadedModules, TellsProgramFromLibraries) {
  LoadedModules modules;
  modules.record();
  EXPECT_TRUE(modules.isProgram(modules.find(address(&ofProgram))));
  const auto* const library = modules.find(address(stdout));
  ASSERT_NE(nullptr, library);
  EXPECT_FALSE(modules.isProgram(library));
}

TEST(LoadedModules, PlacesAddressBehindBase) {
  LoadedModules modules;
  modules.record();
  const auto* const program = modules.find(address(&ofProgram));
  ASSERT_NE(nullptr, program);
  EXPECT_LE(program->base, program->begin);
  EXPECT_EQ(program, modules.find(program->begin));
  EXPECT_NE(program, modules.find(program->end));
}

TEST(LoadedModules, UnknownAddressHasNone) {
  LoadedModules modules;
  EXPECT_EQ(nullptr, modules.find(address(&ofProgram))) << "nothing is recorded yet";
  modules.record();
  EXPECT_EQ(nullptr, modules.find(0));
  EXPECT_EQ(nullptr, modules.find(UINTPTR_MAX));
}

TEST(LoadedModules, RecordingAgainChangesNothing) {
  LoadedModules modules;
  modules.record();
  const std::string before(modules.buildId());
  modules.record();
  EXPECT_EQ(40U, before.size());
  EXPECT_EQ(before, modules.buildId());
}

}  // namespace
}  // namespace kova::utils
