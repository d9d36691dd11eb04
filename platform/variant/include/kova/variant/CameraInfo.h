#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kova/variant/Variant.h"

namespace kova::variant {

/// The description of the device, read once at start.
///
/// It is part of the firmware, so a key that the daemon needs and does not find is a fault of the
/// image: the strict readers log it and end the process through kova::utils::forceCrash().
class CameraInfo : public Variant {
 public:
  /// Reads /usr/share/kova/camera_info.json, a JSON object. False, and logged, when it is missing
  /// or is none.
  bool Init();

  // Strict readers.
  std::string name() const;            ///< "name": the device's default name
  std::uint32_t sysid() const;         ///< "sysid": the model's system identifier
  std::int8_t featureWifi() const;     ///< "feature_wifi": not 0 when the model has Wi-Fi
  std::int8_t featureBattery() const;  ///< "feature_battery": not 0 when it has a battery

 private:
  const Variant& Required(std::string_view key, VariantClass mask) const;
};

}  // namespace kova::variant
