#include "kova/utils/Clock.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace kova::utils {

std::uint64_t nowMs() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  const auto milliseconds = static_cast<std::uint64_t>(time.tv_sec) * 1000U +
                            static_cast<std::uint64_t>(time.tv_nsec) / 1000000U;
  return std::max<std::uint64_t>(milliseconds, 1U);
}

void sleepMs(int milliseconds) {
  if (milliseconds <= 0) return;
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += milliseconds / 1000;
  end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (end.tv_nsec >= 1000000000L) {
    end.tv_nsec -= 1000000000L;
    ++end.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

timeval now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return {time.tv_sec, static_cast<suseconds_t>(time.tv_nsec / 1000)};
}

}  // namespace kova::utils
