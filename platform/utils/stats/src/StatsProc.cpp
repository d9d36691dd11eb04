#include <algorithm>
#include <array>
#include <cerrno>
#include <initializer_list>

#include "StatsInternal.h"
#include "kova/utils/Parsing.h"

namespace kova::utils {
namespace {

/// Splits a line "key : value" of /proc/cpuinfo or /proc/meminfo.
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

/// The value of the first line with one of these keys and a non-empty value; "" if there is none.
std::string_view firstValue(std::string_view text, std::initializer_list<std::string_view> keys) {
  while (!text.empty()) {
    std::string_view value = nextLine(text);
    const std::string_view key = cutKey(value);
    const bool isMeant = std::find(keys.begin(), keys.end(), key) != keys.end();
    if (isMeant && !value.empty()) return value;
  }
  return "";
}

/// The columns of a processor's line in /proc/stat. The remaining ones, guest times, are included
/// in the first two.
namespace column {
enum { User, Nice, System, Idle, IoWait, Irq, SoftIrq, Steal, Count };
}  // namespace column

struct CpuTimes {
  std::uint64_t busy = 0;
  std::uint64_t total = 0;
};

/// Parses the words after "cpuN"; old kernels have fewer columns.
bool parseTimes(std::string_view line, CpuTimes& times) {
  std::array<std::uint64_t, column::Count> columns{};
  for (int place = 0; place < column::Count; ++place) {
    const std::string_view word = nextWord(line);
    if (word.empty()) {
      if (place <= column::Idle) return false;
      break;
    }
    if (!parseNumber(word, columns[place])) return false;
    times.total += columns[place];
  }
  times.busy = times.total - columns[column::Idle] - columns[column::IoWait];
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

CpuInfo parseCpuInfo(std::string_view cpuinfo, std::string_view board) {
  const std::string_view features = firstValue(cpuinfo, {"flags", "Features"});
  // In order of preference; 64-bit ARM usually has none of them.
  for (const std::string_view key : {"model name", "Processor", "Hardware"}) {
    const std::string_view model = firstValue(cpuinfo, {key});
    if (!model.empty()) return {std::string(model), std::string(features)};
  }
  std::string model(board.substr(0, board.find('\0')));
  const std::string_view implementer = firstValue(cpuinfo, {"CPU implementer"});
  if (model.empty() && !implementer.empty()) {
    model = std::string(implementer) + "/" + std::string(firstValue(cpuinfo, {"CPU part"}));
  }
  return {model, std::string(features)};
}

int CpuMeter::update(std::string_view procStat, CpuStats& stats) {
  stats.count = 0;
  while (!procStat.empty()) {
    std::string_view line = nextLine(procStat);
    const std::string_view name = nextWord(line);
    if (!name.starts_with("cpu")) break;
    std::uint32_t number = 0;
    if (!parseNumber(name.substr(3), number)) continue;  // "cpu", the sum of all
    if (number >= CpuStats::kMax) break;
    CpuTimes times;
    if (!parseTimes(line, times)) return EIO;

    if (number >= previous_.size()) previous_.resize(number + 1);
    Counters& counters = previous_[number];
    // A processor that goes offline and online again restarts its counters, and idle times can
    // decrease slightly, see proc(5): differences must not wrap around.
    if (times.total > counters.total) {
      const std::uint64_t busy = times.busy - std::min(times.busy, counters.busy);
      const std::uint64_t percent = busy * 100 / (times.total - counters.total);
      counters.percent = static_cast<std::uint32_t>(std::min<std::uint64_t>(percent, 100));
    }
    counters.total = times.total;
    counters.busy = times.busy;
    while (stats.count <= number) stats.percent[stats.count++] = 0;  // offline processors
    stats.percent[number] = counters.percent;
  }
  return stats.count > 0 ? 0 : EIO;
}

}  // namespace kova::utils
