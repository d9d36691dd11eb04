#include <gtest/gtest.h>

#include <cerrno>

#include "StatsInternal.h"
#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

using tests::TemporaryFolder;
using tests::writeText;

TEST(ParseMemory, FindsTotalAndFree) {
  MemoryStats stats{};
  EXPECT_EQ(0, parseMemory("MemTotal:        4039864 kB\nMemFree:          217524 kB\n"
                           "MemAvailable:    3517620 kB\n",
                           stats));
  EXPECT_EQ(4039864U, stats.totalKb);
  EXPECT_EQ(217524U, stats.freeKb);
}

TEST(ParseMemory, FailsWithoutBoth) {
  MemoryStats stats{};
  EXPECT_EQ(EIO, parseMemory("", stats));
  EXPECT_EQ(EIO, parseMemory("MemTotal: 5 kB\n", stats));
  EXPECT_EQ(EIO, parseMemory("MemFree: 5 kB\n", stats));
  EXPECT_EQ(EIO, parseMemory("MemTotal: many kB\nMemFree: 5 kB\n", stats));
}

TEST(ParseLoadAverage, ReadsThreeNumbers) {
  LoadAverage load{};
  EXPECT_EQ(0, parseLoadAverage("0.52 12.00 1.05 1/123 4567\n", load));
  EXPECT_FLOAT_EQ(0.52F, load.min01);
  EXPECT_FLOAT_EQ(12.0F, load.min05);
  EXPECT_FLOAT_EQ(1.05F, load.min15);
  EXPECT_EQ(EIO, parseLoadAverage("0.52 12.00", load));
}

TEST(ParseUptime, CutsFraction) {
  UptimeStats stats{};
  EXPECT_EQ(0, parseUptime("350735.97 234388.90\n", stats));
  EXPECT_EQ(350735U, stats.sec);
  EXPECT_EQ(EIO, parseUptime("soon\n", stats));
}

TEST(ParseCpuInfo, ReadsKeysOfX86) {
  const CpuInfo info = parseCpuInfo(
      "processor\t: 0\nvendor_id\t: X\nmodel name\t: Quick 3000\nflags\t\t: fpu sse\n\n"
      "processor\t: 1\nmodel name\t: Other\nflags\t\t: none\n",
      "");
  EXPECT_EQ("Quick 3000", info.processor);
  EXPECT_EQ("fpu sse", info.features);
}

TEST(ParseCpuInfo, ReadsArmKeys) {
  const CpuInfo old = parseCpuInfo(
      "Processor\t: ARMv7 rev 5 (v7l)\nprocessor\t: 0\nFeatures\t: neon vfpv4\n\n"
      "Hardware\t: Board\n",
      "");
  EXPECT_EQ("ARMv7 rev 5 (v7l)", old.processor);
  EXPECT_EQ("neon vfpv4", old.features);
  EXPECT_EQ("Board", parseCpuInfo("processor\t: 0\nHardware\t: Board\n", "").processor);
}

TEST(ParseCpuInfo, LeavesMissingModelEmpty) {
  const CpuInfo info =
      parseCpuInfo("processor\t: 0\nFeatures\t: fp asimd\nCPU part\t: 0xd03\n", "");
  EXPECT_EQ("", info.processor);
  EXPECT_EQ("fp asimd", info.features);
  EXPECT_EQ("", parseCpuInfo("", "").features);
}

// /proc/cpuinfo of a board with four Cortex-A53.
constexpr char kArm64[] =
    "processor\t: 0\nBogoMIPS\t: 38.40\nFeatures\t: fp asimd evtstrm crc32 cpuid\n"
    "CPU implementer\t: 0x41\nCPU architecture: 8\nCPU variant\t: 0x0\nCPU part\t: 0xd03\n"
    "CPU revision\t: 4\n\n"
    "processor\t: 1\nBogoMIPS\t: 38.40\nFeatures\t: fp asimd evtstrm crc32 cpuid\n"
    "CPU implementer\t: 0x41\nCPU architecture: 8\nCPU variant\t: 0x0\nCPU part\t: 0xd03\n"
    "CPU revision\t: 4\n\n";

TEST(ParseCpuInfo, NamesBoardIfProcessorHasNoName) {
  using namespace std::string_literals;
  const CpuInfo info = parseCpuInfo(kArm64, "Camera Board Rev 1.2\0"s);
  EXPECT_EQ("Camera Board Rev 1.2", info.processor);
  EXPECT_EQ("fp asimd evtstrm crc32 cpuid", info.features);
  EXPECT_EQ("Quick 3000", parseCpuInfo("model name\t: Quick 3000\n", "Board\0"s).processor);
}

TEST(ParseCpuInfo, NamesImplementerAndPartWithoutBoard) {
  EXPECT_EQ("0x41/0xd03", parseCpuInfo(kArm64, "").processor);
  EXPECT_EQ("0x41/0xd03", parseCpuInfo(kArm64, std::string(1, '\0')).processor);
}

using Percents = std::vector<std::uint32_t>;

class CpuMeterTest : public testing::Test {
 protected:
  Percents update(const std::string& text) {
    CpuStats stats{};
    if (meter_.update(text, stats) != 0) return {};
    return {stats.percent.begin(), stats.percent.begin() + stats.count};
  }

  CpuMeter meter_;
};

TEST_F(CpuMeterTest, MeasuresBusyTimeBetweenReadings) {
  EXPECT_EQ((Percents{25, 100}), update("cpu  250 0 0 150 0 0 0 0 0 0\n"
                                        "cpu0 20 5 0 70 5 0 0 0 9 9\n"
                                        "cpu1 30 30 30 0 0 5 4 1 0 0\n"
                                        "intr 12 cpu\n"));
  EXPECT_EQ((Percents{80, 0}), update("cpu0 100 5 0 80 15 0 0 0 0 0\n"
                                      "cpu1 30 30 30 50 50 5 4 1 0 0\n"));
}

TEST_F(CpuMeterTest, KeepsFigureWithinOneTick) {
  EXPECT_EQ((Percents{0}), update("cpu0 0 0 0 0 0 0 0 0\n"));
  const std::string text = "cpu0 30 0 0 70 0 0 0 0\n";
  EXPECT_EQ((Percents{30}), update(text));
  EXPECT_EQ((Percents{30}), update(text));
}

TEST_F(CpuMeterTest, SurvivesDecreasingCounters) {
  update("cpu0 30 0 0 70 50 0 0 0\n");
  EXPECT_EQ((Percents{0}), update("cpu0 20 0 0 170 50 0 0 0\n"));
  EXPECT_EQ((Percents{0}), update("cpu0 1 0 0 9 0 0 0 0\n"));
  EXPECT_EQ((Percents{50}), update("cpu0 6 0 0 14 0 0 0 0\n"));
  EXPECT_EQ((Percents{100}), update("cpu0 26 0 0 4 0 0 0 0\n"));
}

TEST_F(CpuMeterTest, FollowsProcessorWhenAnotherDisappears) {
  update("cpu0 0 0 0 100 0 0 0 0\ncpu1 0 0 0 100 0 0 0 0\ncpu2 100 0 0 0 0 0 0 0\n");
  EXPECT_EQ((Percents{0, 0, 50}), update("cpu0 0 0 0 200 0 0 0 0\ncpu2 150 0 0 50 0 0 0 0\n"));
}

TEST_F(CpuMeterTest, KeepsEachFigureAtItsNumber) {
  EXPECT_EQ((Percents{0, 25, 0, 75}), update("cpu1 25 0 0 75 0 0 0 0\ncpu3 75 0 0 25 0 0 0 0\n"));
  EXPECT_EQ((Percents{}), update("cpu255 1 0 0 1 0 0 0 0\n"));
}

TEST_F(CpuMeterTest, AcceptsFourColumnsOfOldKernels) {
  EXPECT_EQ((Percents{50}), update("cpu0 1 0 0 1\n"));
}

TEST_F(CpuMeterTest, ReportsAtMost255) {
  std::string text = "cpu  1 1 1 1\n";
  for (int i = 0; i < 300; ++i) text += "cpu" + std::to_string(i) + " 1 0 0 1\n";
  EXPECT_EQ(CpuStats::kMax, update(text).size());
}

TEST_F(CpuMeterTest, FailsOnOtherText) {
  for (const char* text :
       {"", "cpu0 1 2\n", "cpu0 1 2 3\n", "cpu0 1 2 3 x\n", "cpu4294967295 1 2 3 4\n"}) {
    CpuStats stats{};
    EXPECT_EQ(EIO, meter_.update(text, stats)) << text;
  }
}

class NetworkMeterTest : public testing::Test {
 protected:
  static std::string line(const std::string& name, std::uint64_t rx, std::uint64_t tx) {
    return name + ": " + std::to_string(rx) + " 1 2 3 4 5 6 7 " + std::to_string(tx) +
           " 8 9 10 11 12 13 14\n";
  }

  NetworkStats update(const std::string& lines, std::uint64_t timeMs) {
    NetworkStats stats{};
    EXPECT_EQ(0, meter_.update("Inter-| Receive\n face |bytes\n" + lines, timeMs, stats));
    return stats;
  }

  NetworkMeter meter_;
};

TEST_F(NetworkMeterTest, SkipsLoopbackAndReadsBothCounters) {
  const NetworkStats stats = update(
      "    lo" + line("", 1, 2) + "  " + line("eth0", 26898433, 36411) + line("wlan0", 5, 6), 1000);
  ASSERT_EQ(2, stats.count);
  EXPECT_EQ("eth0", stats.interfaces[0].name);
  EXPECT_EQ(26898433U, stats.interfaces[0].bytesRx);
  EXPECT_EQ(36411U, stats.interfaces[0].bytesTx);
  EXPECT_EQ("wlan0", stats.interfaces[1].name);
}

TEST_F(NetworkMeterTest, RatesAreBytesPerSecondSinceLastReading) {
  const NetworkStats first = update(line("eth0", 1000, 500), 1000);
  EXPECT_EQ(0U, first.interfaces[0].dnBps);
  EXPECT_EQ(0U, first.interfaces[0].upBps);
  const NetworkStats stats = update(line("eth0", 4000, 1500), 3000);
  EXPECT_EQ(1500U, stats.interfaces[0].dnBps);
  EXPECT_EQ(500U, stats.interfaces[0].upBps);
}

TEST_F(NetworkMeterTest, RatesWithinOneMillisecondLoseNoByte) {
  update(line("eth0", 0, 0), 1000);
  update(line("eth0", 1000, 2000), 2000);
  const NetworkStats again = update(line("eth0", 1500, 2000), 2000);
  EXPECT_EQ(1500U, again.interfaces[0].bytesRx);
  EXPECT_EQ(1000U, again.interfaces[0].dnBps);
  EXPECT_EQ(2000U, again.interfaces[0].upBps);
  EXPECT_EQ(1000U, update(line("eth0", 2000, 2000), 3000).interfaces[0].dnBps);
}

TEST_F(NetworkMeterTest, DecreasingCounterGivesRateZero) {
  update(line("eth0", 5000, 5000), 1000);
  const NetworkStats stats = update(line("eth0", 100, 6000), 2000);
  EXPECT_EQ(0U, stats.interfaces[0].dnBps);
  EXPECT_EQ(1000U, stats.interfaces[0].upBps);
}

TEST_F(NetworkMeterTest, FollowsInterfacesByName) {
  update(line("eth0", 0, 0) + line("eth1", 1000, 0), 1000);
  const NetworkStats stats = update(line("eth1", 3000, 0) + line("new0", 9999, 0), 2000);
  EXPECT_EQ(2000U, stats.interfaces[0].dnBps);
  EXPECT_EQ(0U, stats.interfaces[1].dnBps);
}

TEST_F(NetworkMeterTest, HugeCountersDoNotOverflow) {
  update(line("eth0", 0, 0), 1000);
  EXPECT_EQ(UINT64_MAX / 1000U, update(line("eth0", UINT64_MAX, 0), 1001000).interfaces[0].dnBps);
}

TEST_F(NetworkMeterTest, ReportsAtMost64Interfaces) {
  std::string lines;
  for (int i = 0; i < 100; ++i) lines += line("veth" + std::to_string(i), 1, 1);
  EXPECT_EQ(NetworkStats::kMax, update(lines, 1000).count);
}

TEST_F(NetworkMeterTest, FailsOnOtherText) {
  NetworkStats stats{};
  EXPECT_EQ(EIO, meter_.update("a\nb\nno colon\n", 1, stats));
  EXPECT_EQ(EIO, meter_.update("a\nb\neth0: 1 2 3\n", 1, stats));
  EXPECT_EQ(EIO, meter_.update("a\nb\neth0: x 2 3 4 5 6 7 8 9\n", 1, stats));
}

TEST_F(NetworkMeterTest, SucceedsWithoutInterfaces) {
  EXPECT_EQ(0, update("", 1000).count);
}

class BatteryTest : public testing::Test {
 protected:
  void supply(const std::string& name, const std::string& type, const std::string& capacity,
              const std::string& status) const {
    std::filesystem::create_directories(folder_ / name);
    writeText(folder_ / (name + "/type"), type + "\n");
    if (!capacity.empty()) writeText(folder_ / (name + "/capacity"), capacity + "\n");
    if (!status.empty()) writeText(folder_ / (name + "/status"), status + "\n");
  }

  TemporaryFolder folder_;
  BatteryInfo info_{7, true};
};

TEST_F(BatteryTest, IsFoundAmongOtherSupplies) {
  supply("AC", "Mains", "", "");
  supply("BAT0", "Battery", "83", "Charging");
  ASSERT_TRUE(readBattery(folder_.path(), info_));
  EXPECT_EQ(83U, info_.percentage);
  EXPECT_TRUE(info_.isCharging);
}

TEST_F(BatteryTest, ChargesOnlyIfStatusSaysSo) {
  for (const char* status : {"Full", "Discharging", "Not charging", "Unknown", ""}) {
    supply("BAT0", "Battery", "100", status);
    ASSERT_TRUE(readBattery(folder_.path(), info_));
    EXPECT_FALSE(info_.isCharging) << status;
  }
}

TEST_F(BatteryTest, FirstByNameIsReported) {
  supply("b", "Battery", "20", "");
  supply("a", "Battery", "10", "");
  supply("c", "Battery", "30", "");
  ASSERT_TRUE(readBattery(folder_.path(), info_));
  EXPECT_EQ(10U, info_.percentage);
}

TEST_F(BatteryTest, NeverExceedsHundredPercent) {
  supply("BAT0", "Battery", "104", "");
  ASSERT_TRUE(readBattery(folder_.path(), info_));
  EXPECT_EQ(100U, info_.percentage);
}

TEST_F(BatteryTest, FailsWithoutBatteryOrCapacity) {
  EXPECT_FALSE(readBattery(folder_ / "missing", info_));
  EXPECT_EQ(0U, info_.percentage);
  EXPECT_FALSE(readBattery(folder_.path(), info_));
  supply("AC", "Mains", "50", "");
  EXPECT_FALSE(readBattery(folder_.path(), info_));
  supply("BAT0", "Battery", "", "Charging");
  EXPECT_FALSE(readBattery(folder_.path(), info_));
  supply("BAT0", "Battery", "lots", "Charging");
  EXPECT_FALSE(readBattery(folder_.path(), info_));
}

}  // namespace
}  // namespace kova::utils
