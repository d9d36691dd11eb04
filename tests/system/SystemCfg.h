#pragma once

#include <string>

#include "Camera.h"

namespace kova::system_test {

inline std::filesystem::path systemCfg(const Camera& camera) {
  return camera.root() / "etc/system.cfg";
}

/// What stands for a key in the text of a system.cfg; "" when nothing does.
inline std::string settingIn(const std::string& text, const std::string& key) {
  const auto begin = ("\n" + text).find("\n" + key + "=");
  if (begin == std::string::npos) {
    return "";
  }
  const auto value = begin + key.size() + 1;
  return text.substr(value, text.find('\n', value) - value);
}

/// The text of a system.cfg once a key has this value: its line changes, or is added at the end.
inline std::string withSetting(const std::string& text, const std::string& key,
                               const std::string& value) {
  const auto begin = ("\n" + text).find("\n" + key + "=");
  if (begin == std::string::npos) {
    return text + key + "=" + value + "\n";
  }
  const auto end = text.find('\n', begin);
  return text.substr(0, begin) + key + "=" + value + text.substr(end);
}

}  // namespace kova::system_test
