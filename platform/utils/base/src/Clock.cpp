#include "kova/utils/Clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kova::utils {

std::uint64_t nowMs() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
  return std::max<std::uint64_t>(static_cast<std::uint64_t>(milliseconds), 1U);
}

void sleepMs(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

}  // namespace kova::utils
