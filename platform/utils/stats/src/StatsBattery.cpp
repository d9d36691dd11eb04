#include <dirent.h>

#include <algorithm>

#include "StatsInternal.h"
#include "kova/utils/Handle.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/ProcFile.h"
#include "kova/utils/Strings.h"

namespace kova::utils {
namespace {

/// An attribute of a power supply; "" if it does not exist.
std::string attribute(const std::string& supply, const char* name) {
  ProcFile file(supply + "/" + name, ProcFile::Form::OnePiece);
  std::string text(contentOf(file));
  trim(text);
  return text;
}

/// Folder of the first battery by name; "" if there is none.
std::string firstBattery(const std::string& folder) {
  const Handle<DIR, closedir> supplies(opendir(folder.c_str()));
  std::string first;
  if (!supplies) return first;
  while (const dirent* entry = readdir(supplies.get())) {
    const std::string supply = folder + "/" + entry->d_name;
    if (!first.empty() && first < supply) continue;
    if (attribute(supply, "type") == "Battery") first = supply;
  }
  return first;
}

}  // namespace

bool readBattery(const std::string& folder, BatteryInfo& info) {
  info = BatteryInfo{};
  const std::string battery = firstBattery(folder);
  std::uint32_t percentage = 0;
  if (battery.empty() || !parseNumber(attribute(battery, "capacity"), percentage)) return false;
  info.percentage = std::min(percentage, 100U);
  info.isCharging = attribute(battery, "status") == "Charging";
  return true;
}

}  // namespace kova::utils
