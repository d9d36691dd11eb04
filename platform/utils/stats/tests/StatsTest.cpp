#include "kova/utils/Stats.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

struct Close {
  void operator()(StatsLib* lib) const { CloseStatsLib(&lib); }
};

struct FreeNames {
  void operator()(struct if_nameindex* names) const { if_freenameindex(names); }
};

class StatsTest : public testing::Test {
 protected:
  void SetUp() override {
    StatsLib* opened = nullptr;
    ASSERT_EQ(0, InitializeStatsLib(&opened));
    lib_.reset(opened);
  }

  std::unique_ptr<StatsLib, Close> lib_;
};

TEST_F(StatsTest, CloseReleasesHandlesAndDescriptors) {
  const long before = tests::openDescriptors();
  StatsLib* lib = nullptr;
  ASSERT_EQ(0, InitializeStatsLib(&lib));
  ASSERT_NE(nullptr, lib);
  EXPECT_GT(tests::openDescriptors(), before);
  CloseStatsLib(&lib);
  EXPECT_EQ(nullptr, lib);
  EXPECT_EQ(before, tests::openDescriptors());
}

TEST_F(StatsTest, MemoryAgreesWithKernel) {
  struct sysinfo info {};
  ASSERT_EQ(0, sysinfo(&info));
  MemoryStats stats{};
  ASSERT_EQ(0, GetMemoryStats(lib_.get(), &stats));
  EXPECT_EQ(info.totalram * info.mem_unit / 1024U, stats.totalKb);
  EXPECT_GT(stats.freeKb, 0U);
  EXPECT_LE(stats.freeKb, stats.totalKb);
}

TEST_F(StatsTest, CpuReportsEveryProcessorWithinHundredPercent) {
  CpuStats stats{};
  ASSERT_EQ(0, GetCpuStats(lib_.get(), &stats));
  // The count exceeds the online processors if a lower number is offline.
  EXPECT_GE(stats.count, std::min(sysconf(_SC_NPROCESSORS_ONLN), 255L));
  EXPECT_LE(stats.count, sysconf(_SC_NPROCESSORS_CONF));
  for (int i = 0; i < stats.count; ++i) EXPECT_LE(stats.percent[i], 100U);
}

TEST_F(StatsTest, CpuInfoIsConstant) {
  CpuInfo first;
  CpuInfo second;
  ASSERT_EQ(0, GetCpuInfo(&first));
  ASSERT_EQ(0, GetCpuInfo(&second));
  EXPECT_EQ(first.processor, second.processor);
  EXPECT_EQ(first.features, second.features);
  EXPECT_FALSE(first.features.empty());
}

TEST_F(StatsTest, LoadAverageAgreesWithKernel) {
  double expected[3] = {};
  ASSERT_EQ(3, getloadavg(expected, 3));
  LoadAverage load{};
  ASSERT_EQ(0, GetLoadAverage(&load));
  EXPECT_NEAR(expected[0], load.min01, 0.5);
  EXPECT_NEAR(expected[1], load.min05, 0.5);
  EXPECT_NEAR(expected[2], load.min15, 0.5);
}

TEST_F(StatsTest, UptimeAgreesWithKernel) {
  struct sysinfo info {};
  UptimeStats stats{};
  ASSERT_EQ(0, GetUptimeStats(&stats));
  ASSERT_EQ(0, sysinfo(&info));
  EXPECT_NEAR(static_cast<double>(info.uptime), static_cast<double>(stats.sec), 2.0);
}

TEST_F(StatsTest, NetworkReportsEveryInterfaceExceptLoopback) {
  std::set<std::string> expected;
  const std::unique_ptr<struct if_nameindex[], FreeNames> names(if_nameindex());
  ASSERT_NE(nullptr, names);
  for (std::size_t i = 0; names[i].if_index != 0; ++i) expected.insert(names[i].if_name);
  ASSERT_EQ(1U, expected.erase("lo")) << "every network namespace has it";

  NetworkStats stats{};
  ASSERT_EQ(0, GetNetworkStats(lib_.get(), &stats));
  std::set<std::string> reported;
  for (int i = 0; i < stats.count; ++i) {
    reported.insert(stats.interfaces[i].name);
    EXPECT_EQ(0U, stats.interfaces[i].upBps) << "nothing was measured before";
    EXPECT_EQ(0U, stats.interfaces[i].dnBps) << "nothing was measured before";
  }
  EXPECT_EQ(expected, reported);
}

TEST_F(StatsTest, WiFiSucceedsWithoutInterfacesAndZeroesRest) {
  WiFiStats stats;
  std::memset(static_cast<void*>(&stats), 0x5a, sizeof stats);
  ASSERT_EQ(0, GetWiFiStats(&stats));
  ASSERT_LE(stats.count, WiFiStats::kMax);
  const WiFiInterfaceStats zeroed{};
  for (std::size_t i = stats.count; i < stats.interfaces.size(); ++i) {
    EXPECT_EQ(0, std::memcmp(&zeroed, &stats.interfaces[i], sizeof zeroed)) << i;
  }
}

}  // namespace
}  // namespace kova::utils
