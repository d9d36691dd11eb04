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

/// now() in microseconds since 1970, as CLOCK_REALTIME counts.
inline std::uint64_t wallClockUs() {
  const timeval time = now();
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
         static_cast<std::uint64_t>(time.tv_usec);
}

}  // namespace kova::utils
