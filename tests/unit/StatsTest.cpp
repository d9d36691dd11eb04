#include <cstring>
#include <set>

#include "CtlServer.h"
#include "UnitTest.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::GetSystemStats;

class StatsTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    describe({{"feature_wifi", 1}, {"feature_battery", 1}});
    auto& stats = platform().stats;
    stats.memory = {1000, 400};
    stats.cpu.count = 2;
    stats.cpu.percent[0] = 10;
    stats.cpu.percent[1] = 20;
    stats.cpuInfo = {" ARMv8 Processor \n", "\tfp asimd "};
    stats.load = {0.5F, 1.25F, 2.0F};
    stats.network.count = 2;
    stats.network.interfaces[0] = {"wlan0", 1, 2, 3, 4};
    stats.network.interfaces[1] = {" eth0\n", 5, 6, 7, 8};
    stats.defaultInterface = "eth0";
    setWifi(0, "wlan0", -50);
    setWifi(1, "eth0", -60);
    stats.wifi.count = 2;
    stats.uptime = {86400};
    stats.battery = {77, true};
  }

  void describe(Map description) { static_cast<Variant&>(info_) = Variant(std::move(description)); }

  static void setWifi(std::size_t slot, const char* name, std::int32_t signal) {
    auto& record = platform().stats.wifi.interfaces.at(slot);
    std::memset(record.name, 0, sizeof record.name);
    std::strncpy(record.name, name, sizeof record.name - 1);
    record.signalDbm = signal;
  }

  bool read(Map request = {}) {
    GetSystemStats message{Variant(std::move(request))};
    message.NormalizeFields();
    return server_.readStats(message, reply_);
  }

  static Map without(const std::string& kept) {
    Map flags;
    for (const char* key :
         {"memory", "cpu", "cpuInfo", "loadavg", "network", "wifi", "uptime", "battery"}) {
      flags[key] = key == kept;
    }
    return flags;
  }

  /// The section for two interfaces, one of which is reported; its counters are `first` and up.
  static Variant network(const char* name, std::uint64_t first) {
    return Map{{"numifaces", std::uint8_t{2}}, {"name", name},       {"bytesRx", first},
               {"bytesTx", first + 1},         {"upBps", first + 2}, {"dnBps", first + 3}};
  }

  variant::CameraInfo info_;
  CtlServer server_{info_};
  Variant reply_{"left over"};
};

TEST_F(StatsTest, FullRequestReportsEverySectionInItsTypes) {
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_,
            Variant(Map{
                {"memory", Map{{"totalKb", 1000U}, {"freeKb", 400U}}},
                {"cpu", Map{{"cnt", std::uint8_t{2}}, {"arr", Variant::Array{10U, 20U}}}},
                {"cpuinfo", Map{{"processor", "ARMv8 Processor"}, {"features", "fp asimd"}}},
                {"loadavg", Map{{"01min", 0.5}, {"05min", 1.25}, {"15min", 2.0}}},
                {"network", network("eth0", 5)},
                {"wifi", Map{{"signalStrength", -60}, {"quality", 80}}},
                {"uptime", Map{{"sec", std::uint64_t{86400}}}},
                {"battery", Map{{"percentage", 77U}, {"isCharging", true}}},
            }));
  EXPECT_THAT(platform().journal,
              ElementsAre("GetMemoryStats", "GetCpuStats", "GetCpuInfo", "GetLoadAverage",
                          "GetNetworkStats", "GetWiFiStats", "GetUptimeStats", "GetBatteryInfo"));
}

TEST_F(StatsTest, EachFlagSelectsItsSection) {
  const std::pair<const char*, const char*> sections[] = {
      {"memory", "memory"},   {"cpu", "cpu"},   {"cpuInfo", "cpuinfo"}, {"loadavg", "loadavg"},
      {"network", "network"}, {"wifi", "wifi"}, {"uptime", "uptime"},   {"battery", "battery"}};
  for (const auto& [flag, section] : sections) {
    ASSERT_TRUE(read(without(flag)));
    EXPECT_EQ(reply_.Size(), 1U) << flag;
    EXPECT_NE(reply_.find(section), nullptr) << flag;
  }
}

TEST_F(StatsTest, EmptyRequestYieldsEmptyMap) {
  EXPECT_TRUE(read(without("")));
  EXPECT_EQ(reply_, Variant(Map{}));
  EXPECT_THAT(platform().journal, IsEmpty());
}

TEST_F(StatsTest, FailingReaderIsLoggedAndEndsReadingWithPartialResult) {
  struct Case {
    int fakes::Statistics::*result;
    const char* text;
    const char* section;
  };
  const Case cases[] = {
      {&fakes::Statistics::memoryResult, "Failed to read memory statistics (5)", "memory"},
      {&fakes::Statistics::cpuResult, "Failed to read cpu statistics (5)", "cpu"},
      {&fakes::Statistics::cpuInfoResult, "Failed to read cpu info (5)", "cpuinfo"},
      {&fakes::Statistics::loadResult, "Failed to read load average (5)", "loadavg"},
      {&fakes::Statistics::networkResult, "Failed to read network statistics (5)", "network"},
      {&fakes::Statistics::wifiResult, "Failed to read Wi-Fi statistics (5)", "wifi"},
      {&fakes::Statistics::uptimeResult, "Failed to read uptime (5)", "uptime"},
  };
  std::set<std::string> kept;
  for (const auto& test : cases) {
    platform().log.clear();
    platform().stats.*test.result = 5;
    EXPECT_FALSE(read()) << test.text;
    platform().stats.*test.result = 0;
    EXPECT_THAT(platform().log, ElementsAre(LogLine{"CtlServer", "readStats", 3, 0, test.text}));
    std::set<std::string> sections;
    for (const auto& [key, section] : reply_.elements()) {
      sections.insert(key);
    }
    EXPECT_EQ(sections, kept) << test.text;
    kept.insert(test.section);
  }
}

TEST_F(StatsTest, FailingBatteryIsLoggedWithoutCode) {
  platform().stats.batteryResult = false;
  EXPECT_FALSE(read());
  EXPECT_TRUE(platform().logged(3, "Failed to read battery statistics"));
  EXPECT_EQ(reply_.find("battery"), nullptr);
  EXPECT_NE(reply_.find("uptime"), nullptr);
}

TEST_F(StatsTest, ModelWithoutWifiOrBatteryNeverReportsThem) {
  describe({{"feature_wifi", 0}, {"feature_battery", 0}});
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_.find("wifi"), nullptr);
  EXPECT_EQ(reply_.find("battery"), nullptr);
  EXPECT_EQ(reply_.Size(), 6U);
}

TEST_F(StatsTest, FeatureIsReadAsSignedByte) {
  describe({{"feature_wifi", 256}, {"feature_battery", -1}});
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_.find("wifi"), nullptr);
  EXPECT_NE(reply_.find("battery"), nullptr);
}

TEST_F(StatsTest, UnreportedDefaultInterfaceFallsBackToFirst) {
  platform().stats.defaultInterface = "usb0";
  platform().stats.network.interfaces[0] = {" wlan0\n", 1, 2, 3, 4};
  platform().stats.network.interfaces[2] = {"usb0", 9, 9, 9, 9};  // an unused slot
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["network"], network("wlan0", 1));
}

TEST_F(StatsTest, FirstInterfaceWithExactDefaultNameIsReported) {
  auto& network = platform().stats.network;
  network.count = 4;
  network.interfaces[0] = {"eth0.1", 11, 12, 13, 14};
  network.interfaces[1] = {"eth", 21, 22, 23, 24};
  network.interfaces[2] = {"eth0", 31, 32, 33, 34};
  network.interfaces[3] = {"eth0", 41, 42, 43, 44};
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["network"]["bytesRx"], Variant(std::uint64_t{31}));
}

TEST_F(StatsTest, FirstOfEqualWifiNamesIsReported) {
  setWifi(0, "eth0", -70);
  setWifi(1, "eth0", -90);
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["wifi"]["signalStrength"], Variant(-70));
}

TEST_F(StatsTest, WifiQualityIsNotClamped) {
  setWifi(1, "eth0", -42);
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["wifi"]["quality"], Variant(116));
  setWifi(1, "eth0", -110);
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["wifi"]["quality"], Variant(-20));
}

TEST_F(StatsTest, NoProcessorsAreEmptyArray) {
  platform().stats.cpu.count = 0;
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["cpu"], Variant(Map{{"cnt", std::uint8_t{0}}, {"arr", Variant::Array{}}}));
}

TEST_F(StatsTest, NetworkWithoutInterfacesHoldsOnlyTheirNumber) {
  platform().stats.network.count = 0;
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["network"], Variant(Map{{"numifaces", std::uint8_t{0}}}));
}

TEST_F(StatsTest, UnmatchedWifiNameReportsSlotAfterLast) {
  platform().stats.defaultInterface = "usb0";
  setWifi(2, "stale", -42);
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["wifi"], Variant(Map{{"signalStrength", -42}, {"quality", 116}}));
}

TEST_F(StatsTest, WifiNameIsMatchedExactly) {
  setWifi(1, "eth0 ", -10);
  setWifi(2, "", -100);
  ASSERT_TRUE(read());
  EXPECT_EQ(reply_["wifi"], Variant(Map{{"signalStrength", -100}, {"quality", 0}}));
}

TEST_F(StatsTest, DescriptionWithoutFeatureEndsProcessForAnyRequest) {
  // Log lines about the description name the operation.
  const auto expectCrash = [&](const std::string& text) {
    EXPECT_THROW(read(without("")), fakes::ForcedCrash);
    EXPECT_EQ(platform().log.back(), (LogLine{"CtlServer", "readStats", 3, 0, text}));
  };
  describe({{"feature_battery", 0}});
  expectCrash("Key \"feature_wifi\" not available");
  describe({{"feature_wifi", 0}});
  expectCrash("Key \"feature_battery\" not available");
  describe({{"feature_wifi", true}, {"feature_battery", 0}});
  expectCrash("Key \"feature_wifi\" has a different type than expected");
  describe({{"feature_wifi", 0}, {"feature_battery", "1"}});
  expectCrash("Key \"feature_battery\" has a different type than expected");
  static_cast<Variant&>(info_) = Variant("no map");
  expectCrash("Invalid variant type detected");
}

}  // namespace
}  // namespace kova::ctlserver
