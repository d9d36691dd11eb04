#include "kova/utils/Stats.h"

#include <cerrno>
#include <memory>
#include <new>

#include "StatsInternal.h"
#include "kova/utils/Clock.h"
#include "kova/utils/ProcFile.h"

namespace kova::utils {
namespace {

/// Runs `parse` on the current content of `file`; zeroes the record on failure.
template <typename Stats, typename Parse>
int readInto(ProcFile& file, Stats* stats, Parse parse) {
  *stats = Stats{};
  std::string_view text;
  int error = file.read(text);
  if (error == 0) error = parse(text, *stats);
  if (error != 0) *stats = Stats{};
  return error;
}

}  // namespace

int InitializeStatsLib(StatsLib** lib) {
  *lib = nullptr;
  std::unique_ptr<StatsLib> created(new (std::nothrow) StatsLib);
  if (!created) return ENOMEM;
  for (ProcFile* file : {&created->meminfo, &created->stat, &created->netDev}) {
    if (const int error = file->open(); error != 0) return error;
  }
  *lib = created.release();
  return 0;
}

void CloseStatsLib(StatsLib** lib) {
  delete *lib;
  *lib = nullptr;
}

int GetMemoryStats(StatsLib* lib, MemoryStats* stats) {
  return readInto(lib->meminfo, stats, parseMemory);
}

int GetCpuStats(StatsLib* lib, CpuStats* stats) {
  return readInto(lib->stat, stats, [lib](std::string_view text, CpuStats& out) {
    return lib->cpu.update(text, out);
  });
}

int GetNetworkStats(StatsLib* lib, NetworkStats* stats) {
  return readInto(lib->netDev, stats, [lib](std::string_view text, NetworkStats& out) {
    return lib->network.update(text, nowMs(), out);
  });
}

int GetLoadAverage(LoadAverage* load) {
  static ProcFile file("/proc/loadavg", ProcFile::Form::OnePiece);
  return readInto(file, load, parseLoadAverage);
}

int GetUptimeStats(UptimeStats* stats) {
  static ProcFile file("/proc/uptime", ProcFile::Form::OnePiece);
  return readInto(file, stats, parseUptime);
}

int GetCpuInfo(CpuInfo* info) {
  // Constant while the machine runs, and slow to generate for many processors.
  static CpuInfo cached;
  static bool isCached = false;
  if (!isCached) {
    ProcFile file("/proc/cpuinfo", ProcFile::Form::Records);
    ProcFile model("/proc/device-tree/model", ProcFile::Form::OnePiece);
    const std::string_view board = contentOf(model);  // missing on a PC
    const int error = readInto(file, &cached, [board](std::string_view text, CpuInfo& out) {
      out = parseCpuInfo(text, board);
      return 0;
    });
    isCached = error == 0;
    if (!isCached) {
      *info = CpuInfo{};
      return error;
    }
  }
  *info = cached;
  return 0;
}

bool GetBatteryInfo(BatteryInfo& info) {
  return readBattery("/sys/class/power_supply", info);
}

}  // namespace kova::utils
