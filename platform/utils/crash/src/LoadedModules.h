#pragma once

#include <link.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "CrashText.h"

namespace kova::utils {

/// Where the program and its libraries lie in memory, and which build of the program it is.
/// Recorded once; what signal handlers ask afterwards only reads.
class LoadedModules {
 public:
  struct Module {
    std::uintptr_t begin;
    std::uintptr_t end;
    std::uintptr_t base;  ///< what was added to the addresses in its file
  };

  /// Records what is loaded now; libraries that are loaded later stay unknown.
  void record();

  /// The module that has the address; null if none is known.
  const Module* find(std::uintptr_t address) const;
  bool isProgram(const Module* module) const { return module == modules_.data(); }

  /// The build-id that the linker gave the program, in hexadecimal; empty if it has none.
  std::string_view buildId() const { return buildId_.view(); }

 private:
  static int add(dl_phdr_info* info, std::size_t size, void* self);
  void addModule(const dl_phdr_info& info);
  void readBuildId(std::string_view notes);

  std::array<Module, 128> modules_{};  // the program comes first
  std::size_t count_ = 0;
  CrashText<129> buildId_;
};

}  // namespace kova::utils
