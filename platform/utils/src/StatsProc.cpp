#include <algorithm>
#include <array>
#include <cerrno>

#include "StatsInternal.h"
#include "kova/utils/Words.h"

namespace kova::utils {
namespace {

constexpr std::uint32_t kMostProcessors = 8192;  // the most that Linux can be built for

/// Cuts "key : value", as /proc/cpuinfo and /proc/meminfo have it, in two.
std::string_view cutKey(std::string_view& line) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return "";
  std::string_view key = line.substr(0, colon);
  key = key.substr(0, key.find_last_not_of(kBlanks) + 1);
  line.remove_prefix(colon + 1);
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  return key;
}

/// The columns of a processor's line in /proc/stat; later ones are contained in the first two.
enum CpuColumn { kUser, kNice, kSystem, kIdle, kIoWait, kIrq, kSoftIrq, kSteal, kColumns };

struct CpuTimes {
  std::uint64_t busy = 0;
  std::uint64_t total = 0;
};

/// Reads the words after "cpuN"; old kernels have fewer columns.
bool parseTimes(std::string_view line, CpuTimes& times) {
  std::array<std::uint64_t, kColumns> columns{};
  for (int column = 0; column < kColumns; ++column) {
    const std::string_view word = nextWord(line);
    if (word.empty()) {
      if (column <= kIdle) return false;
      break;
    }
    if (!parseNumber(word, columns[column])) return false;
    times.total += columns[column];
  }
  times.busy = times.total - columns[kIdle] - columns[kIoWait];
  return true;
}

}  // namespace

int parseMemory(std::string_view meminfo, MemoryStats& stats) {
  bool hasTotal = false;
  bool hasFree = false;
  while (!meminfo.empty() && !(hasTotal && hasFree)) {
    std::string_view line = nextLine(meminfo);
    const std::string_view key = cutKey(line);
    if (key == "MemTotal") hasTotal = parseNumber(nextWord(line), stats.totalKb);
    if (key == "MemFree") hasFree = parseNumber(nextWord(line), stats.freeKb);
  }
  return hasTotal && hasFree ? 0 : EIO;
}

int parseLoadAverage(std::string_view loadavg, LoadAverage& load) {
  const bool complete = parseNumber(nextWord(loadavg), load.min01) &&
                        parseNumber(nextWord(loadavg), load.min05) &&
                        parseNumber(nextWord(loadavg), load.min15);
  return complete ? 0 : EIO;
}

int parseUptime(std::string_view uptime, UptimeStats& stats) {
  const std::string_view seconds = nextWord(uptime);
  return parseNumber(seconds.substr(0, seconds.find('.')), stats.sec) ? 0 : EIO;
}

CpuInfo parseCpuInfo(std::string_view cpuinfo) {
  // The model goes by one of these names, the most telling first; 64-bit ARM often has none.
  constexpr std::array<std::string_view, 3> kModelKeys{"model name", "Processor", "Hardware"};
  std::array<std::string_view, 3> models;
  std::string_view features;
  while (!cpuinfo.empty()) {
    std::string_view value = nextLine(cpuinfo);
    const std::string_view key = cutKey(value);
    for (std::size_t i = 0; i < kModelKeys.size(); ++i) {
      if (key == kModelKeys[i] && models[i].empty()) models[i] = value;
    }
    if ((key == "flags" || key == "Features") && features.empty()) features = value;
  }
  const auto isGiven = [](std::string_view model) { return !model.empty(); };
  const auto model = std::find_if(models.begin(), models.end(), isGiven);
  return {std::string(model == models.end() ? std::string_view() : *model), std::string(features)};
}

int CpuMeter::Update(std::string_view procStat, CpuStats& stats) {
  stats.count = 0;
  while (!procStat.empty()) {
    std::string_view line = nextLine(procStat);
    const std::string_view name = nextWord(line);
    if (!name.starts_with("cpu")) break;
    std::uint32_t number = 0;
    if (!parseNumber(name.substr(3), number)) continue;  // "cpu", the sum of all
    if (stats.count == CpuStats::kMax || number >= kMostProcessors) break;
    CpuTimes times;
    if (!parseTimes(line, times)) return EIO;

    if (number >= previous_.size()) previous_.resize(number + 1);
    Counters& counters = previous_[number];
    // The times of a processor that went off and on again start anew, and idle times can step back
    // a little, see proc(5): no difference may wrap around.
    if (times.total > counters.total) {
      const std::uint64_t busy = times.busy - std::min(times.busy, counters.busy);
      const std::uint64_t percent = busy * 100 / (times.total - counters.total);
      counters.percent = static_cast<std::uint32_t>(std::min<std::uint64_t>(percent, 100));
    }
    counters.total = times.total;
    counters.busy = times.busy;
    stats.percent[stats.count++] = counters.percent;
  }
  return stats.count > 0 ? 0 : EIO;
}

}  // namespace kova::utils
