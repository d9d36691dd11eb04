#include "Platform.h"
#include "kova/syscfg/SystemCfgManager.h"

using kova::fakes::platform;

namespace kova::syscfg {

bool SystemCfgManager::init() {
  platform().note("SystemCfgManager::init");
  for (const auto& [key, value] : platform().config.values) {
    lines_.push_back({key, value});
  }
  return platform().config.initResult;
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* absent) const {
  if (key == platform().config.failingGet) {
    return false;
  }
  value->clear();
  if (absent != nullptr) {
    *absent = true;
  }
  for (const auto& line : lines_) {
    if (line.key == key) {
      *value = line.value;
      if (absent != nullptr) {
        *absent = false;
      }
      return true;
    }
  }
  return absent != nullptr;
}

bool SystemCfgManager::set(const std::string& key, const std::string& value, bool* changed) {
  platform().note("set " + key + "=" + value);
  if (key == platform().config.failingSet || value.find_first_of({"\n\r\0", 3}) != value.npos) {
    return false;
  }
  for (auto& line : lines_) {
    if (line.key == key) {
      if (changed != nullptr) {
        *changed = line.value != value;
      }
      line.value = value;
      return true;
    }
  }
  lines_.push_back({key, value});
  if (changed != nullptr) {
    *changed = true;
  }
  return true;
}

bool SystemCfgManager::set(const std::string& key, int value, bool* changed) {
  return set(key, std::to_string(value), changed);
}

bool SystemCfgManager::close(bool changed, bool force) {
  platform().note(std::string("close ") + (changed ? "true " : "false ") +
                  (force ? "true" : "false"));
  if (!platform().config.closeResult) {
    return false;
  }
  if (changed || force) {
    platform().config.values.clear();
    for (const auto& line : lines_) {
      platform().config.values[line.key] = line.value;
    }
  }
  return true;
}

}  // namespace kova::syscfg
