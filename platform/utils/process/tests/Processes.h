#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "../../tests/TemporaryFolder.h"
#include "kova/utils/Clock.h"

namespace kova::tests {

/// Waits up to twenty seconds for a condition; returns whether it holds.
inline bool eventually(const std::function<bool()>& condition) {
  const std::uint64_t deadline = utils::nowMs() + 20000;
  while (!condition()) {
    if (utils::nowMs() > deadline) return false;
    utils::sleepMs(2);
  }
  return true;
}

/// Whether the process exists and is not a zombie.
inline bool isRunning(pid_t pid) {
  // Reads "stat", since "cmdline" may be empty for a moment during execve(2).
  const std::string line = readText("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t state = line.rfind(") ");
  return state != std::string::npos && line.compare(state + 2, 1, "Z") != 0;
}

}  // namespace kova::tests
