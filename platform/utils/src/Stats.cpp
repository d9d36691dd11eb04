#include "kova/utils/Stats.h"

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <new>

#include "ProcFile.h"
#include "StatsInternal.h"
#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

bool openInto(UniqueFd& fd, const char* path) {
  fd = UniqueFd(open(path, O_RDONLY | O_CLOEXEC));
  return static_cast<bool>(fd);
}

/// Runs `parse` on the current content behind `fd`; the record is zeroed before and after a
/// failure.
template <typename Stats, typename Parse>
int readInto(int fd, std::string& text, Stats* stats, Parse parse) {
  *stats = Stats{};
  int error = readFromStart(fd, text);
  if (error == 0) error = parse(std::string_view(text), *stats);
  if (error != 0) *stats = Stats{};
  return error;
}

template <typename Stats, typename Parse>
int readInto(const char* path, Stats* stats, Parse parse) {
  UniqueFd fd;
  if (!openInto(fd, path)) {
    *stats = Stats{};
    return errno;
  }
  std::string text;
  return readInto(fd.Get(), text, stats, parse);
}

}  // namespace

int InitializeStatsLib(StatsLib** lib) {
  *lib = nullptr;
  std::unique_ptr<StatsLib> created(new (std::nothrow) StatsLib);
  if (!created) return ENOMEM;
  if (!openInto(created->meminfo, "/proc/meminfo") || !openInto(created->stat, "/proc/stat") ||
      !openInto(created->netDev, "/proc/net/dev")) {
    return errno;
  }
  *lib = created.release();
  return 0;
}

void CloseStatsLib(StatsLib** lib) {
  delete *lib;
  *lib = nullptr;
}

int GetMemoryStats(StatsLib* lib, MemoryStats* stats) {
  return readInto(lib->meminfo.Get(), lib->text, stats, parseMemory);
}

int GetCpuStats(StatsLib* lib, CpuStats* stats) {
  return readInto(lib->stat.Get(), lib->text, stats, [lib](std::string_view text, CpuStats& out) {
    return lib->cpu.Update(text, out);
  });
}

int GetNetworkStats(StatsLib* lib, NetworkStats* stats) {
  return readInto(lib->netDev.Get(), lib->text, stats,
                  [lib](std::string_view text, NetworkStats& out) {
                    return lib->network.Update(text, nowMs(), out);
                  });
}

int GetLoadAverage(LoadAverage* load) {
  return readInto("/proc/loadavg", load, parseLoadAverage);
}

int GetUptimeStats(UptimeStats* stats) {
  return readInto("/proc/uptime", stats, parseUptime);
}

int GetCpuInfo(CpuInfo* info) {
  // Never changes while the machine runs, and takes the kernel long where there are many
  // processors.
  static CpuInfo cached;
  static bool isCached = false;
  if (!isCached) {
    const int error = readInto("/proc/cpuinfo", info, [](std::string_view text, CpuInfo& out) {
      out = parseCpuInfo(text);
      return 0;
    });
    if (error != 0) return error;
    cached = *info;
    isCached = true;
  }
  *info = cached;
  return 0;
}

bool GetBatteryInfo(BatteryInfo& info) {
  return readBattery("/sys/class/power_supply", info);
}

}  // namespace kova::utils
