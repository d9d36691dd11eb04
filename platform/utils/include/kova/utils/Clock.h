#pragma once

#include <sys/time.h>

#include <cstdint>

namespace kova::utils {

/// Milliseconds of the monotonic clock (clock_gettime(2), CLOCK_MONOTONIC): monotonic, and never 0.
std::uint64_t nowMs();

/// Blocks the calling thread for `milliseconds`; signals do not shorten the wait. Returns at once
/// when that is 0 or less.
void sleepMs(int milliseconds);

/// Wall-clock time, with microseconds.
timeval now();

}  // namespace kova::utils
