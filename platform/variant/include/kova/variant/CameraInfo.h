#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kova/logger/Logger.h"
#include "kova/variant/Variant.h"

namespace kova::variant {

/// The description of the device, read once at start.
///
/// It is part of the firmware, so a key that the daemon needs and does not find is a fault of the
/// image: the strict readers log it in the name of who reads and end the process through
/// kova::utils::forceCrash().
class CameraInfo : public Variant {
 public:
  /// Reads /usr/share/kova/camera_info.json, a JSON object. False, and logged, when it is missing
  /// or is none.
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

 private:
  using Accepts = bool (*)(const Variant& value);
  const Variant& Required(std::string_view key, Accepts accepts,
                          const logger::Origin& reader) const;
};

}  // namespace kova::variant
