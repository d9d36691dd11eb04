#include <algorithm>
#include <cerrno>

#include "StatsInternal.h"
#include "kova/utils/Parsing.h"

namespace kova::utils {
namespace {

/// Parses the columns after "NAME:" of /proc/net/dev.
bool parseCounters(std::string_view columns, NetworkInterfaceStats& stats) {
  constexpr int kColumnsBeforeTx = 7;
  if (!parseNumber(nextWord(columns), stats.bytesRx)) return false;
  for (int i = 0; i < kColumnsBeforeTx; ++i) nextWord(columns);
  return parseNumber(nextWord(columns), stats.bytesTx);
}

/// Bytes per second; 0 for a counter that decreased. `elapsedMs` must not be 0.
std::uint64_t rate(std::uint64_t before, std::uint64_t now, std::uint64_t elapsedMs) {
  const std::uint64_t bytes = now - std::min(before, now);
  return bytes / elapsedMs * 1000U + bytes % elapsedMs * 1000U / elapsedMs;
}

}  // namespace

void NetworkMeter::setRates(NetworkInterfaceStats& now, std::uint64_t elapsedMs) const {
  const auto before =
      std::find_if(previous_.begin(), previous_.end(),
                   [&now](const NetworkInterfaceStats& stats) { return stats.name == now.name; });
  if (before == previous_.end()) return;
  if (elapsedMs == 0) {
    now.upBps = before->upBps;
    now.dnBps = before->dnBps;
  } else {
    now.upBps = rate(before->bytesTx, now.bytesTx, elapsedMs);
    now.dnBps = rate(before->bytesRx, now.bytesRx, elapsedMs);
  }
}

int NetworkMeter::update(std::string_view procNetDev, std::uint64_t timeMs, NetworkStats& stats) {
  stats.count = 0;
  const std::uint64_t elapsedMs = timeMs - previousMs_;
  nextLine(procNetDev);
  nextLine(procNetDev);  // two header lines
  while (!procNetDev.empty() && stats.count < NetworkStats::kMax) {
    std::string_view line = nextLine(procNetDev);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return EIO;
    std::string_view padded = line.substr(0, colon);
    const std::string_view name = nextWord(padded);
    if (name == "lo") continue;

    NetworkInterfaceStats& interface = stats.interfaces[stats.count];
    interface = NetworkInterfaceStats{};
    interface.name = name;
    if (!parseCounters(line.substr(colon + 1), interface)) return EIO;
    setRates(interface, elapsedMs);
    ++stats.count;
  }
  if (elapsedMs != 0) {
    previous_.assign(stats.interfaces.begin(), stats.interfaces.begin() + stats.count);
    previousMs_ = timeMs;
  }
  return 0;
}

}  // namespace kova::utils
