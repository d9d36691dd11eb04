#include "LoadedModules.h"

#include <gtest/gtest.h>

#include <elf.h>

#include <cstdio>
#include <string>

#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

int ofProgram = 0;

std::uintptr_t address(const void* place) {
  return reinterpret_cast<std::uintptr_t>(place);
}

TEST(LoadedModules, DistinguishesProgramFromLibraries) {
  LoadedModules modules;
  modules.record();
  EXPECT_TRUE(modules.isProgram(modules.find(address(&ofProgram))));
  const auto* const library = modules.find(address(stdout));
  ASSERT_NE(nullptr, library);
  EXPECT_FALSE(modules.isProgram(library));
}

TEST(LoadedModules, FindsModuleByItsAddresses) {
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
  EXPECT_EQ(nullptr, modules.find(address(&ofProgram))) << "not recorded yet";
  modules.record();
  EXPECT_EQ(nullptr, modules.find(0));
  EXPECT_EQ(nullptr, modules.find(UINTPTR_MAX));
}

std::string words(std::initializer_list<std::uint32_t> values) {
  std::string text;
  for (const std::uint32_t value : values) {
    text.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  return text;
}

TEST(LoadedModules, RecordingAgainChangesNothing) {
  // The build-id note in this program's file.
  const std::string mark = words({4, 20, NT_GNU_BUILD_ID}) + std::string("GNU", 4);
  const std::string program = tests::readText("/proc/self/exe");
  const std::size_t at = program.find(mark);
  ASSERT_NE(at, std::string::npos);
  CrashText<41> expected;
  for (const char byte : program.substr(at + mark.size(), 20)) expected.appendByte(byte);
  LoadedModules modules;
  for (int time = 0; time < 2; ++time) {
    modules.record();
    EXPECT_EQ(modules.buildId(), expected.view());
  }
}

TEST(FindBuildId, IsDescriptionOfRightNote) {
  const auto note = [](const std::string& name, const std::string& text, std::uint32_t type) {
    const auto padded = [](std::string part) {
      return part.append((4 - part.size() % 4) % 4, 'p');
    };
    return words({static_cast<std::uint32_t>(name.size()), static_cast<std::uint32_t>(text.size()),
                  type}) +
           padded(name) + padded(text);
  };
  const std::string gnu("GNU", 4);
  const std::string id = note(gnu, "sixth", NT_GNU_BUILD_ID);
  EXPECT_EQ(findBuildId(id), "sixth");
  const std::string others = note(gnu, "first", NT_GNU_ABI_TAG) +
                             note("Other", "second", NT_GNU_BUILD_ID) + note(gnu, "", 5);
  EXPECT_EQ(findBuildId(others), "");
  EXPECT_EQ(findBuildId(others + id + note(gnu, "next", NT_GNU_BUILD_ID)), "sixth");
  EXPECT_EQ(findBuildId(id.substr(0, id.size() - 1)), "") << "truncated";
}

}  // namespace
}  // namespace kova::utils
