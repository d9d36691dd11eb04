#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kova/utils/ProcFile.h"
#include "kova/utils/Stats.h"

// The readers behind Stats.h, apart from where the text comes from. Each parser returns 0, or EIO
// for a text that does not hold what proc(5) promises.

namespace kova::utils {

int parseMemory(std::string_view meminfo, MemoryStats& stats);
int parseLoadAverage(std::string_view loadavg, LoadAverage& load);
int parseUptime(std::string_view uptime, UptimeStats& stats);

/// Never fails: a machine whose /proc/cpuinfo names no model has none.
CpuInfo parseCpuInfo(std::string_view cpuinfo);

/// Busy time of each processor between two readings of /proc/stat.
class CpuMeter {
 public:
  /// Two readings within one clock tick give the same figures.
  int Update(std::string_view procStat, CpuStats& stats);

 private:
  struct Counters {
    std::uint64_t busy = 0;
    std::uint64_t total = 0;
    std::uint32_t percent = 0;
  };
  std::vector<Counters> previous_;  // by processor number
};

/// Traffic of each interface between two readings of /proc/net/dev.
class NetworkMeter {
 public:
  /// @param timeMs monotonic time of this reading; two readings within one millisecond give the
  /// same rates. A counter that went back (the interface was made anew) gives the rate 0.
  int Update(std::string_view procNetDev, std::uint64_t timeMs, NetworkStats& stats);

 private:
  void Rate(NetworkInterfaceStats& now, std::uint64_t elapsedMs) const;

  std::vector<NetworkInterfaceStats> previous_;
  std::uint64_t previousMs_ = 0;
};

/// One wireless interface as nl80211 tells of it.
struct WirelessInterface {
  std::uint32_t index = 0;
  std::string name;
  bool isClient = false;  ///< the only kind that has one signal level: that of its access point
};

/// Reads an answer to NL80211_CMD_GET_INTERFACE; false for one without a name (a P2P device).
bool decodeInterface(nlmsghdr* message, WirelessInterface& interface);
/// Reads an answer to NL80211_CMD_GET_STATION; false for one without a signal level.
bool decodeSignal(nlmsghdr* message, std::int32_t& dBm);
/// Adds an interface to the record, unless that is full.
void addWiFiInterface(std::string_view name, std::int32_t signalDbm, WiFiStats& stats);
/// Adds the interfaces of /proc/net/wireless.
void parseWireless(std::string_view procNetWireless, WiFiStats& stats);

/// The first battery, by name, below `folder`; false when there is none or it cannot be read.
bool readBattery(const std::string& folder, BatteryInfo& info);

struct StatsLib {
  ProcFile meminfo{"/proc/meminfo", ProcFile::Form::kOnePiece};
  ProcFile stat{"/proc/stat", ProcFile::Form::kOnePiece};
  ProcFile netDev{"/proc/net/dev", ProcFile::Form::kRecords};
  CpuMeter cpu;
  NetworkMeter network;
};

}  // namespace kova::utils
