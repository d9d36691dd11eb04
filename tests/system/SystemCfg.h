#pragma once

#include <string>

#include "Camera.h"

namespace kova::system_test {

inline std::filesystem::path systemCfg(const Camera& camera) {
  return camera.root() / "etc/system.cfg";
}

/// The value of a key in the text of a system.cfg; "" if absent.
inline std::string settingIn(const std::string& text, const std::string& key) {
  const auto begin = ("\n" + text).find("\n" + key + "=");
  if (begin == std::string::npos) {
    return "";
  }
  const auto value = begin + key.size() + 1;
  return text.substr(value, text.find('\n', value) - value);
}

/// The text of a system.cfg with a key set to this value: changes its line or appends one.
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
