#include "kova/utils/Clock.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <ctime>

namespace kova::utils {
namespace {

TEST(NowMs, IsMonotonicClock) {
  const auto reference = [] {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec * 1000 + time.tv_nsec / 1000000);
  };
  const std::uint64_t before = reference();
  const std::uint64_t time = nowMs();
  EXPECT_GE(time, before);
  EXPECT_LE(time, reference());
}

TEST(Now, IsWallClock) {
  const time_t before = time(nullptr);
  const timeval value = now();
  EXPECT_GE(value.tv_sec + 1, before);
  EXPECT_LE(value.tv_sec, time(nullptr) + 1);
}

TEST(SleepMs, IsNotShortenedBySignals) {
  static volatile sig_atomic_t alarms = 0;
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  ASSERT_EQ(0, sigaction(SIGALRM, &action, &previous));
  const itimerval every5Ms{{0, 5000}, {0, 5000}};
  const itimerval never{};
  const std::uint64_t before = nowMs();
  setitimer(ITIMER_REAL, &every5Ms, nullptr);
  sleepMs(60);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GE(nowMs() - before, 60U);
  EXPECT_GT(alarms, 0);
}

}  // namespace
}  // namespace kova::utils
