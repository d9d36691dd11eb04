#include "StatsTable.h"

#include <strings.h>

#include <algorithm>

#include "Text.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

using variant::Variant;

double number(const Variant& section, std::string_view key) {
  const Variant* value = section.Find(key);
  return value != nullptr ? value->ToNumber<double>() : 0;
}

std::string text(const Variant& section, std::string_view key) {
  const Variant* value = section.Find(key);
  return value != nullptr ? cell(*value) : "-";
}

std::string memory(const Variant& section) {
  const double total = number(section, "totalKb");
  const double used = std::max(0.0, total - number(section, "freeKb"));
  return humanBytes(used * 1024) + " of " + humanBytes(total * 1024) + " used (" +
         utils::format("%.0f %%", total > 0 ? 100 * used / total : 0) + "), " +
         humanBytes(number(section, "freeKb") * 1024) + " free";
}

std::string processors(const Variant& section) {
  const Variant* busy = section.Find("arr");
  std::string out;
  for (const Variant& value : busy != nullptr ? busy->Items() : Variant::Array{}) {
    out += (out.empty() ? "" : "  ") + utils::format("%.0f %%", value.ToNumber<double>());
  }
  return out.empty() ? "-" : out + " busy";
}

std::string processorModel(const Variant& section) {
  return text(section, "processor");
}

std::string load(const Variant& section) {
  return utils::format("%.2f", number(section, "01min")) + "  " +
         utils::format("%.2f", number(section, "05min")) + "  " +
         utils::format("%.2f", number(section, "15min")) + "  (1, 5, 15 min)";
}

std::string network(const Variant& section) {
  if (section.Find("name") == nullptr) {
    return "no interface";
  }
  return text(section, "name") + ": down " + humanBytes(number(section, "dnBps")) + "/s, up " +
         humanBytes(number(section, "upBps")) + "/s; received " +
         humanBytes(number(section, "bytesRx")) + ", sent " +
         humanBytes(number(section, "bytesTx"));
}

std::string wifi(const Variant& section) {
  return text(section, "signalStrength") + " dBm, quality " + text(section, "quality") + " %";
}

std::string uptime(const Variant& section) {
  const Variant* seconds = section.Find("sec");
  return seconds != nullptr ? humanDuration(seconds->ToNumber<std::uint64_t>()) : "-";
}

std::string battery(const Variant& section) {
  const Variant* charging = section.Find("isCharging");
  return text(section, "percentage") + " %" +
         (charging != nullptr && charging->ToBool() ? ", charging" : "");
}

}  // namespace

const std::vector<StatsSection>& statsSections() {
  static const std::vector<StatsSection> sections{
      {"memory", "memory", "Memory", memory},
      {"cpu", "cpu", "Processors", processors},
      {"cpuInfo", "cpuinfo", "Model", processorModel},
      {"loadavg", "loadavg", "Load", load},
      {"network", "network", "Network", network},
      {"wifi", "wifi", "Wi-Fi", wifi},
      {"uptime", "uptime", "Up", uptime},
      {"battery", "battery", "Battery", battery},
  };
  return sections;
}

const StatsSection* findStatsSection(const std::string& name) {
  const auto& sections = statsSections();
  const auto found = std::ranges::find_if(sections, [&name](const StatsSection& section) {
    return strcasecmp(std::string(section.flag).c_str(), name.c_str()) == 0;
  });
  return found != sections.end() ? &*found : nullptr;
}

std::vector<Row> statsRows(const Variant& reply, const std::vector<const StatsSection*>& wanted) {
  std::vector<Row> rows;
  for (const StatsSection& section : statsSections()) {
    const Variant* content = reply.Find(section.key);
    if (content != nullptr) {
      rows.push_back({std::string(section.label), section.describe(*content)});
    } else if (std::ranges::find(wanted, &section) != wanted.end()) {
      rows.push_back({std::string(section.label), "not reported"});
    }
  }
  return rows;
}

}  // namespace kova::ctl
