#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kova/logger/Logger.h"
#include "kova/variant/Variant.h"

namespace kova::variant {

/// The device description, read once at start.
///
/// It is part of the firmware, so a missing key means a faulty image: the strict readers log it on
/// behalf of their caller and end the process through kova::utils::forceCrash().
class CameraInfo : public Variant {
 public:
  /// Reads /usr/share/kova/camera_info.json, a JSON object. False, and logged, if the file is
  /// missing or is not a JSON object.
  bool Init();

  // Strict readers.
  /// "name": the device's default name, a text.
  std::string name(const logger::Origin& reader) const;
  /// "sysid": the model's system identifier, an integer.
  std::uint32_t sysid(const logger::Origin& reader) const;
  /// "feature_wifi": a number, not 0 when the model has Wi-Fi.
  std::int8_t featureWifi(const logger::Origin& reader) const;
  /// "feature_battery": a number, not 0 when the model has a battery.
  std::int8_t featureBattery(const logger::Origin& reader) const;

  /// The value of a key that a description may lack: a text as it is, anything else as ToString()
  /// gives it. nullopt if the key is absent.
  std::optional<std::string> optionalText(std::string_view key) const;

 private:
  using Accepts = bool (*)(const Variant& value);
  const Variant& required(std::string_view key, Accepts accepts,
                          const logger::Origin& reader) const;
};

}  // namespace kova::variant
