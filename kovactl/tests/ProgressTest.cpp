#include "Progress.h"

#include <gtest/gtest.h>

namespace kova::ctl {
namespace {

using namespace std::chrono_literals;

TransferRecord transferring(std::uint64_t done, std::uint64_t size) {
  TransferRecord record;
  record.phase = "transferring";
  record.transferred = done;
  record.size = size;
  return record;
}

TEST(ProgressLine, HasBarBytesRateAndTimeLeft) {
  EXPECT_EQ(progressLine(transferring(512 * 1024, 1024 * 1024), 128 * 1024, 79),
            " 50 %  [############............]  512 KiB of 1.0 MiB  128 KiB/s  00:00:04 left");
  EXPECT_EQ(progressLine(transferring(1024, 1024), 0, 79),
            "100 %  [########################################]  1.0 KiB of 1.0 KiB");
}

TEST(ProgressLine, WithoutSizeHasNoBar) {
  EXPECT_EQ(progressLine(transferring(2048, 0), 1024, 79), "2.0 KiB  1.0 KiB/s");
}

TEST(ProgressLine, SizeBelowBytesIsIgnored) {
  EXPECT_EQ(progressLine(transferring(2048, 1024), 1024, 79), "2.0 KiB  1.0 KiB/s");
  EXPECT_EQ(progressLine(transferring(0, UINT64_MAX), 1, 79).find("left"), std::string::npos);
}

TEST(ProgressLine, FitsNarrowTerminals) {
  for (std::size_t columns = 0; columns < 90; ++columns) {
    EXPECT_LE(progressLine(transferring(512, 1024), 100, columns).size(), columns);
  }
  EXPECT_EQ(progressLine(transferring(512, 1024), 0, 30), " 50 %  512 B of 1.0 KiB");
}

TEST(Rate, IsOfLastSeconds) {
  Rate rate;
  const Rate::Clock::time_point start{};
  EXPECT_EQ(rate.perSecond(), 0);
  rate.add(0, start);
  EXPECT_EQ(rate.perSecond(), 0);
  rate.add(1000, start + 1s);
  EXPECT_EQ(rate.perSecond(), 1000);
  for (int second = 2; second <= 20; ++second) {
    rate.add(1000, start + std::chrono::seconds(second));
  }
  EXPECT_EQ(rate.perSecond(), 0);
}

TEST(Rate, SurvivesCountsThatShrinkAndMissingTime) {
  Rate rate;
  const Rate::Clock::time_point start{};
  rate.add(5000, start);
  rate.add(10, start + 1s);
  EXPECT_EQ(rate.perSecond(), 0);
  rate.add(20, start + 1s);
  EXPECT_EQ(rate.perSecond(), 0);
}

}  // namespace
}  // namespace kova::ctl
