#include "kova/utils/Clock.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <ctime>

namespace kova::utils {
namespace {

TEST(NowMs, IsMonotonicAndNeverZero) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  const auto before = static_cast<std::uint64_t>(time.tv_sec * 1000 + time.tv_nsec / 1000000);
  const std::uint64_t first = nowMs();
  const std::uint64_t second = nowMs();
  EXPECT_GT(first, 0U);
  EXPECT_GE(first, before);
  EXPECT_GE(second, first);
  EXPECT_LT(second, before + 10000U);
}

TEST(Now, IsWallClock) {
  const time_t before = time(nullptr);
  const timeval value = now();
  EXPECT_GE(value.tv_sec + 1, before);
  EXPECT_LE(value.tv_sec, time(nullptr) + 1);
  EXPECT_GE(value.tv_usec, 0);
  EXPECT_LT(value.tv_usec, 1000000);
}

TEST(SleepMs, LastsShortestTime) {
  const auto before = std::chrono::steady_clock::now();
  sleepMs(1);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1));
}

TEST(SleepMs, ReturnsAtOnceForZeroAndNegative) {
  const std::uint64_t before = nowMs();
  sleepMs(0);
  sleepMs(-100000);
  EXPECT_LT(nowMs() - before, 1000U);
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
