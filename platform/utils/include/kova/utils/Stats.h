#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kova::utils {

/// Opaque state of the statistics engine: open files and the previous counters that rates are
/// computed from.
struct StatsLib;

struct MemoryStats {
  std::uint32_t totalKb;  ///< MemTotal of /proc/meminfo
  std::uint32_t freeKb;   ///< MemFree of /proc/meminfo
};

struct CpuStats {
  static constexpr std::size_t kMax = 255;
  std::uint8_t count;  ///< processors reported
  /// Busy time since the previous call, in the first since boot; 0 to 100.
  std::array<std::uint32_t, kMax> percent;
};

struct CpuInfo {
  std::string processor;  ///< model, as /proc/cpuinfo gives it
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
  /// One slot more than is ever reported, so that the reported slots are followed by a zeroed one.
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

/// Each of these fills its record and returns 0, or zeroes the record and returns an errno value.
int GetMemoryStats(StatsLib* lib, MemoryStats* stats);
int GetCpuStats(StatsLib* lib, CpuStats* stats);
int GetCpuInfo(CpuInfo* info);
int GetLoadAverage(LoadAverage* load);
/// Loopback interfaces are not reported.
int GetNetworkStats(StatsLib* lib, NetworkStats* stats);
/// Reads signal levels by nl80211, or from /proc/net/wireless if the kernel still has only that. A
/// system without Wi-Fi reports nothing and succeeds.
int GetWiFiStats(WiFiStats* stats);
int GetUptimeStats(UptimeStats* stats);

/// The first battery in /sys/class/power_supply; true on success.
bool GetBatteryInfo(BatteryInfo& info);

}  // namespace kova::utils
