#include <climits>

#include "Rig.h"
#include "kova/utils/Clock.h"

namespace kova::suite {
namespace {

using utils::now;
using utils::nowMs;
using utils::sleepMs;

class ClockSuite : public PlatformSuite {};

TEST_F(ClockSuite, MonotonicClockNeverGoesBack) {
  std::uint64_t last = nowMs();
  EXPECT_GT(last, 0U);
  for (int i = 0; i < 1000; ++i) {
    const auto next = nowMs();
    ASSERT_GE(next, last);
    last = next;
  }
}

TEST_F(ClockSuite, SleepLastsAtLeastItsTime) {
  for (const int milliseconds : {1, 5, 20, 1001}) {
    const auto before = nowMs();
    sleepMs(milliseconds);
    EXPECT_GE(nowMs() - before, static_cast<unsigned>(milliseconds));
  }
}

TEST_F(ClockSuite, SleepOfZeroOrNegativeReturnsAtOnce) {
  const auto before = nowMs();
  for (const int milliseconds : {0, -1, INT_MIN}) {
    sleepMs(milliseconds);
  }
  EXPECT_LT(nowMs() - before, 1000U);
}

TEST_F(ClockSuite, WallClockIsValidTime) {
  const timeval time = now();
  EXPECT_GT(time.tv_sec, 0);
  EXPECT_GE(time.tv_usec, 0);
  EXPECT_LT(time.tv_usec, 1'000'000);
}

}  // namespace
}  // namespace kova::suite
