#include "Platform.h"

using kova::fakes::platform;

namespace kova::utils {

struct StatsLib {};

namespace {

StatsLib theLib;

template <typename Record>
int give(const char* reader, int result, const Record& scripted, Record* record) {
  platform().note(reader);
  *record = result == 0 ? scripted : Record{};
  return result;
}

}  // namespace

int InitializeStatsLib(StatsLib** lib) {
  platform().note("InitializeStatsLib");
  const int result = platform().stats.initResult;
  *lib = result == 0 ? &theLib : nullptr;
  return result;
}

void CloseStatsLib(StatsLib** lib) {
  platform().note("CloseStatsLib");
  *lib = nullptr;
}

int GetMemoryStats(StatsLib*, MemoryStats* stats) {
  const auto& script = platform().stats;
  return give("GetMemoryStats", script.memoryResult, script.memory, stats);
}

int GetCpuStats(StatsLib*, CpuStats* stats) {
  const auto& script = platform().stats;
  return give("GetCpuStats", script.cpuResult, script.cpu, stats);
}

int GetCpuInfo(CpuInfo* info) {
  const auto& script = platform().stats;
  return give("GetCpuInfo", script.cpuInfoResult, script.cpuInfo, info);
}

int GetLoadAverage(LoadAverage* load) {
  const auto& script = platform().stats;
  return give("GetLoadAverage", script.loadResult, script.load, load);
}

int GetNetworkStats(StatsLib*, NetworkStats* stats) {
  const auto& script = platform().stats;
  return give("GetNetworkStats", script.networkResult, script.network, stats);
}

int GetWiFiStats(WiFiStats* stats) {
  const auto& script = platform().stats;
  return give("GetWiFiStats", script.wifiResult, script.wifi, stats);
}

int GetUptimeStats(UptimeStats* stats) {
  const auto& script = platform().stats;
  return give("GetUptimeStats", script.uptimeResult, script.uptime, stats);
}

bool GetBatteryInfo(BatteryInfo& info) {
  const auto& script = platform().stats;
  return give("GetBatteryInfo", script.batteryResult ? 0 : 1, script.battery, &info) == 0;
}

}  // namespace kova::utils
