#pragma once

#include <sys/time.h>

#include <cstdint>

namespace kova::utils {

/// Milliseconds of the monotonic clock (clock_gettime(2), CLOCK_MONOTONIC): never goes back, never
/// 0.
std::uint64_t nowMs();

/// Blocks the calling thread for `milliseconds`; signals do not shorten the wait. 0 or less returns
/// at once.
void sleepMs(int milliseconds);

/// Wall-clock time, with microseconds.
timeval now();

}  // namespace kova::utils
