#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kova/utils/ProcFile.h"
#include "kova/utils/Stats.h"

// The parsers behind Stats.h, separate from the files that they read. Each returns 0, or EIO for a
// text that does not conform to proc(5).

namespace kova::utils {

/// The content of a file; "" if it cannot be read.
inline std::string_view contentOf(ProcFile& file) {
  std::string_view text;
  file.read(text);
  return text;
}

int parseMemory(std::string_view meminfo, MemoryStats& stats);
int parseLoadAverage(std::string_view loadavg, LoadAverage& load);
int parseUptime(std::string_view uptime, UptimeStats& stats);

/// Never fails. If /proc/cpuinfo has no model, as on 64-bit ARM, the model is `board`, the
/// NUL-terminated content of /proc/device-tree/model, else the implementer and part of the
/// processor, such as "0x41/0xd03", else "".
CpuInfo parseCpuInfo(std::string_view cpuinfo, std::string_view board);

/// Busy time of each processor between two reads of /proc/stat.
class CpuMeter {
 public:
  /// Results are indexed by processor number; 0 for an offline processor. Two reads within one
  /// clock tick yield the same results.
  int update(std::string_view procStat, CpuStats& stats);

 private:
  struct Counters {
    std::uint64_t busy = 0;
    std::uint64_t total = 0;
    std::uint32_t percent = 0;
  };
  std::vector<Counters> previous_;  // by processor number
};

/// Traffic of each interface between two reads of /proc/net/dev.
class NetworkMeter {
 public:
  /// @param timeMs monotonic time of this read; two reads within one millisecond yield the same
  /// rates. A counter that decreased (the interface was recreated) yields the rate 0.
  int update(std::string_view procNetDev, std::uint64_t timeMs, NetworkStats& stats);

 private:
  void setRates(NetworkInterfaceStats& now, std::uint64_t elapsedMs) const;

  std::vector<NetworkInterfaceStats> previous_;
  std::uint64_t previousMs_ = 0;
};

/// A wireless interface as reported by nl80211.
struct WirelessInterface {
  std::uint32_t index;
  std::string name;
  bool isClient;  ///< only clients have a single signal level, that of their access point
};

/// Parses an answer to NL80211_CMD_GET_INTERFACE; false for an interface without a name (a P2P
/// device).
bool decodeInterface(nlmsghdr* message, WirelessInterface& interface);
/// Parses an answer to NL80211_CMD_GET_STATION; false for a station without a signal level.
bool decodeSignal(nlmsghdr* message, std::int32_t& dBm);
/// Adds an interface to the record unless it is full.
void addWiFiInterface(std::string_view name, std::int32_t signalDbm, WiFiStats& stats);
/// Adds the interfaces of /proc/net/wireless.
void parseWireless(std::string_view procNetWireless, WiFiStats& stats);

/// The first battery, by name, below `folder`; false if there is none or it cannot be read.
bool readBattery(const std::string& folder, BatteryInfo& info);

struct StatsLib {
  ProcFile meminfo{"/proc/meminfo", ProcFile::Form::OnePiece};
  ProcFile stat{"/proc/stat", ProcFile::Form::OnePiece};
  ProcFile netDev{"/proc/net/dev", ProcFile::Form::Records};
  CpuMeter cpu;
  NetworkMeter network;
};

}  // namespace kova::utils
