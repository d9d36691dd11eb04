#include <algorithm>
#include <utility>

#include "Platform.h"
#include "kova/syscfg/SystemCfgManager.h"

using kova::fakes::platform;

namespace kova::syscfg {
namespace {

constexpr char kSpace[] = " \t\n\v\f\r";

bool isValue(const std::string& value) {
  return value.find_first_of({"\n\r\0", 3}) == value.npos;
}

bool isKey(const std::string& key) {
  return !key.empty() && isValue(key) && key.front() != '#' && key.find('=') == key.npos &&
         key.find_first_of(kSpace) != 0 && key.find_last_of(kSpace) != key.size() - 1;
}

}  // namespace

bool SystemCfgManager::init() {
  platform().note("SystemCfgManager::init");
  lines_.clear();
  for (const auto& [key, value] : platform().config.values) {
    lines_.push_back({key, value});
  }
  open_ = platform().config.initResult;
  return open_;
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* absent) const {
  platform().note("get " + key);
  if (!open_ || value == nullptr || key == platform().config.failingGet) {
    return false;
  }
  const auto line = std::ranges::find(lines_, key, &ConfigLine::key);
  const bool found = line != lines_.end();
  *value = found ? line->value : "";
  if (absent != nullptr) {
    *absent = !found;
  }
  return found || absent != nullptr;
}

bool SystemCfgManager::set(const std::string& key, const std::string& value, bool* changed) {
  platform().note("set " + key + "=" + value);
  if (!open_ || key == platform().config.failingSet || !isKey(key) || !isValue(value)) {
    return false;
  }
  const auto line = std::ranges::find(lines_, key, &ConfigLine::key);
  const bool differs = line == lines_.end() || line->value != value;
  if (line == lines_.end()) {
    lines_.push_back({key, value});
  } else {
    line->value = value;
  }
  if (changed != nullptr) {
    *changed = differs;
  }
  return true;
}

bool SystemCfgManager::set(const std::string& key, int value, bool* changed) {
  return set(key, std::to_string(value), changed);
}

bool SystemCfgManager::close(bool changed, bool force) {
  platform().note(std::string("close ") + (changed ? "true " : "false ") +
                  (force ? "true" : "false"));
  const auto lines = std::exchange(lines_, {});
  if (!std::exchange(open_, false) || !platform().config.closeResult) {
    return false;
  }
  if (changed || force) {
    platform().config.values.clear();
    for (const auto& line : lines) {
      platform().config.values[line.key] = line.value;
    }
  }
  return true;
}

}  // namespace kova::syscfg
