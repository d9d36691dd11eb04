#pragma once

#include <ctime>

/// The daemon's pause between two passes.
inline void sleepTick() {
  constexpr timespec kTick{0, 10'000'000};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &kTick, nullptr);
}
