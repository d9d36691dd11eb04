#include "Platform.h"

using kova::fakes::platform;

namespace kova::utils {

struct StatsLib {};

namespace {

StatsLib theLib;

const fakes::Statistics& script() {
  return platform().stats;
}

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
  return give("GetMemoryStats", script().memoryResult, script().memory, stats);
}

int GetCpuStats(StatsLib*, CpuStats* stats) {
  return give("GetCpuStats", script().cpuResult, script().cpu, stats);
}

int GetCpuInfo(CpuInfo* info) {
  return give("GetCpuInfo", script().cpuInfoResult, script().cpuInfo, info);
}

int GetLoadAverage(LoadAverage* load) {
  return give("GetLoadAverage", script().loadResult, script().load, load);
}

int GetNetworkStats(StatsLib*, NetworkStats* stats) {
  return give("GetNetworkStats", script().networkResult, script().network, stats);
}

int GetWiFiStats(WiFiStats* stats) {
  return give("GetWiFiStats", script().wifiResult, script().wifi, stats);
}

int GetUptimeStats(UptimeStats* stats) {
  return give("GetUptimeStats", script().uptimeResult, script().uptime, stats);
}

bool GetBatteryInfo(BatteryInfo& info) {
  return give("GetBatteryInfo", script().batteryResult ? 0 : 1, script().battery, &info) == 0;
}

}  // namespace kova::utils
