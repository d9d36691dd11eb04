#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kova::utils {

/// Opaque state of the statistics engine: open files, and the previous counters for computing
/// rates.
struct StatsLib;

struct MemoryStats {
  std::uint32_t totalKb;  ///< MemTotal of /proc/meminfo
  std::uint32_t freeKb;   ///< MemFree of /proc/meminfo
};

struct CpuStats {
  static constexpr std::size_t kMax = 255;
  std::uint8_t count;  ///< processors reported
  /// Busy time since the previous call, or since boot in the first call; 0 to 100.
  std::array<std::uint32_t, kMax> percent;
};

struct CpuInfo {
  std::string processor;  ///< model from /proc/cpuinfo
  std::string features;   ///< feature flags, separated by spaces
};

struct LoadAverage {
  float min01, min05, min15;  ///< of /proc/loadavg
};

struct NetworkInterfaceStats {
  std::string name;
  std::uint64_t bytesRx, bytesTx;  ///< since the interface came up
  std::uint64_t upBps, dnBps;      ///< bytes per second since the previous call; 0 in the first
};

struct NetworkStats {
  static constexpr std::size_t kMax = 64;
  std::uint8_t count;
  std::array<NetworkInterfaceStats, kMax> interfaces;
};

/// One wireless interface; 44 bytes, the signal level at byte 36.
struct WiFiInterfaceStats {
  char name[32];
  std::int32_t linkQuality;  ///< 0 to 70
  std::int32_t signalDbm;    ///< of the access point; -100 without a connection
  std::int32_t noiseDbm;     ///< 0: not measured
};
static_assert(sizeof(WiFiInterfaceStats) == 44);

struct WiFiStats {
  static constexpr std::size_t kMax = 8;
  std::uint8_t count;
  /// One slot more than is ever reported: a zeroed slot terminates the list.
  std::array<WiFiInterfaceStats, kMax + 1> interfaces;
};

struct UptimeStats {
  std::uint64_t sec;  ///< whole seconds since boot
};

struct BatteryInfo {
  std::uint32_t percentage;  ///< charge, 0 to 100
  bool isCharging;
};

/// Opens the statistics engine. Returns 0, or an errno value and leaves `*lib` null. Close with
/// CloseStatsLib().
int InitializeStatsLib(StatsLib** lib);

/// Closes the engine and sets `*lib` to null.
void CloseStatsLib(StatsLib** lib);

/// Each of these functions fills its record and returns 0, or zeroes it and returns an errno value.
int GetMemoryStats(StatsLib* lib, MemoryStats* stats);
int GetCpuStats(StatsLib* lib, CpuStats* stats);
int GetCpuInfo(CpuInfo* info);
int GetLoadAverage(LoadAverage* load);
/// Loopback interfaces are not reported.
int GetNetworkStats(StatsLib* lib, NetworkStats* stats);
/// Reads signal levels through nl80211, or if that fails from /proc/net/wireless. Succeeds with no
/// interfaces on a system without Wi-Fi.
int GetWiFiStats(WiFiStats* stats);
int GetUptimeStats(UptimeStats* stats);

/// The first battery in /sys/class/power_supply; true on success.
bool GetBatteryInfo(BatteryInfo& info);

}  // namespace kova::utils
