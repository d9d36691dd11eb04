#include "kova/syscfg/SystemCfgManager.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "ConfigText.h"
#include "kova/logger/Logger.h"
#include "kova/utils/File.h"

namespace kova::syscfg {
namespace {

constexpr char kLogIdentity[] = "kova_syscfg";
constexpr char kLogUnit[] = "SystemCfgManager";
constexpr char kStore[] = "/etc/system.cfg";
constexpr std::size_t kMaxStore = std::size_t{1024} * 1024;

// The last line with this key; earlier ones are ignored.
template <typename Lines>
auto* findLine(Lines& lines, const std::string& key) {
  const auto found = std::find_if(lines.rbegin(), lines.rend(),
                                  [&key](const ConfigLine& line) { return line.key == key; });
  return found == lines.rend() ? nullptr : &*found;
}

// Whether the store stays within the read limit with this value in `line`, or in a new line if
// null.
bool fits(const std::vector<ConfigLine>& lines, const ConfigLine* line, const std::string& key,
          const std::string& value) {
  const std::size_t now = internal::formatConfig(lines).size();
  const std::size_t without = line == nullptr ? now + key.size() + 2 : now - line->value.size();
  return without + value.size() <= kMaxStore;
}

bool replaceStore(const std::string& text) {
  if (text.size() > kMaxStore) {
    errno = EFBIG;
    return false;
  }
  utils::File file;
  return file.Initialize(kStore, utils::FILE_OPEN_MODE_TRUNCATE, utils::FILE_REPLACE_ATOMICALLY) &&
         file.WriteString(text) && file.Close();
}

}  // namespace

bool SystemCfgManager::init() {
  std::string text;
  open_ = utils::File::ReadStringAll(kStore, text, kMaxStore);
  if (!open_) {
    KOVA_LOG(LOG_ERR, errno, "Cannot read %s", kStore);
    return false;
  }
  lines_ = internal::parseConfig(text);
  return true;
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* absent) const {
  if (!open_ || value == nullptr) {
    return false;
  }
  const ConfigLine* line = key.empty() ? nullptr : findLine(lines_, key);
  *value = line == nullptr ? "" : line->value;
  if (absent != nullptr) {
    *absent = line == nullptr;
  }
  return line != nullptr || absent != nullptr;
}

bool SystemCfgManager::set(const std::string& key, const std::string& value, bool* changed) {
  if (!open_ || !internal::isKey(key) || !internal::isValue(value)) {
    return false;
  }
  ConfigLine* line = findLine(lines_, key);
  const bool differs = line == nullptr || line->value != value;
  if (differs && !fits(lines_, line, key, value)) {
    return false;
  }
  if (line == nullptr) {
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
  const std::vector<ConfigLine> lines = std::exchange(lines_, {});
  if (!std::exchange(open_, false)) {
    return false;
  }
  if (!changed && !force) {
    return true;
  }
  if (!replaceStore(internal::formatConfig(lines))) {
    KOVA_LOG(LOG_ERR, errno, "Cannot replace %s", kStore);
    return false;
  }
  return true;
}

}  // namespace kova::syscfg
