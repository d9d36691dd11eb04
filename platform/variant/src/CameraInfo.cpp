#include "kova/variant/CameraInfo.h"

#include "kova/logger/Logger.h"
#include "kova/utils/Crash.h"

namespace kova::variant {
namespace {

constexpr char kLogIdentity[] = "kova_variant";
constexpr char kLogUnit[] = "CameraInfo";

}  // namespace

std::string CameraInfo::name() const {
  return Required("name", VariantClass::String).ToText();
}

std::uint32_t CameraInfo::sysid() const {
  return Required("sysid", VariantClass::Number).ToNumber<std::uint32_t>();
}

std::int8_t CameraInfo::featureWifi() const {
  return Required("feature_wifi", VariantClass::Number).ToNumber<std::int8_t>();
}

std::int8_t CameraInfo::featureBattery() const {
  return Required("feature_battery", VariantClass::Number).ToNumber<std::int8_t>();
}

const Variant& CameraInfo::Required(std::string_view key, VariantClass mask) const {
  const int length = static_cast<int>(key.size());
  if (!IsMap()) {
    KOVA_LOG(LOG_ERR, 0, "Invalid variant type detected");
    utils::forceCrash();
  }
  const Variant* value = Find(key);
  if (value == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "Key \"%.*s\" not available", length, key.data());
    utils::forceCrash();
  }
  if (!value->Is(mask)) {
    KOVA_LOG(LOG_ERR, 0, "Key \"%.*s\" has a different type than expected", length, key.data());
    utils::forceCrash();
  }
  return *value;
}

}  // namespace kova::variant
