#pragma once

#include <link.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "CrashText.h"

namespace kova::utils {

/// The build-id among notes of an ELF file, see elf(5); empty if there is none.
std::string_view findBuildId(std::string_view notes);

/// The address ranges of the program and its libraries, and the program's build-id. After record(),
/// all functions only read, so signal handlers may call them.
class LoadedModules {
 public:
  struct Module {
    std::uintptr_t begin;
    std::uintptr_t end;
    std::uintptr_t base;  ///< load bias: address in memory minus address in the file
  };

  /// Records the modules loaded now; libraries loaded later stay unknown.
  void record();

  /// The module that contains the address; null if unknown.
  const Module* find(std::uintptr_t address) const;
  bool isProgram(const Module* module) const { return module == modules_.data(); }

  /// The program's build-id in hexadecimal; empty if it has none.
  std::string_view buildId() const { return buildId_.view(); }

 private:
  static int add(dl_phdr_info* info, std::size_t size, void* self);
  void addModule(const dl_phdr_info& info);

  std::array<Module, 128> modules_{};  // the program comes first
  std::size_t count_ = 0;
  CrashText<129> buildId_;
};

}  // namespace kova::utils
