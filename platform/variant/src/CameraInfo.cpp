#include "kova/variant/CameraInfo.h"

#include "kova/logger/Logger.h"
#include "kova/utils/Crash.h"

namespace kova::variant {
namespace {

bool isText(const Variant& value) {
  return value.Is(VariantClass::String);
}

bool isNumber(const Variant& value) {
  return value.Is(VariantClass::Number);
}

bool isInteger(const Variant& value) {
  return isNumber(value) && value.Type() != VariantType::Double;
}

}  // namespace

std::string CameraInfo::name(const logger::Origin& reader) const {
  return Required("name", isText, reader).ToText();
}

std::uint32_t CameraInfo::sysid(const logger::Origin& reader) const {
  return Required("sysid", isInteger, reader).ToNumber<std::uint32_t>();
}

std::int8_t CameraInfo::featureWifi(const logger::Origin& reader) const {  // kept: 98
  return Required("feature_wifi", isNumber, reader).ToNumber<std::int8_t>();
}

std::int8_t CameraInfo::featureBattery(const logger::Origin& reader) const {  // kept: 98
  return Required("feature_battery", isNumber, reader).ToNumber<std::int8_t>();
}

// kept: 7
const Variant& CameraInfo::Required(std::string_view key, Accepts accepts,
                                    const logger::Origin& reader) const {
  const int length = static_cast<int>(key.size());
  if (!IsMap()) {
    KOVA_LOG_AT(reader, LOG_ERR, 0, "Invalid variant type detected");
    utils::forceCrash();
  }
  const Variant* value = Find(key);
  if (value == nullptr) {
    KOVA_LOG_AT(reader, LOG_ERR, 0, "Key \"%.*s\" not available", length, key.data());
    utils::forceCrash();
  }
  if (!accepts(*value)) {
    KOVA_LOG_AT(reader, LOG_ERR, 0, "Key \"%.*s\" has a different type than expected", length,
                key.data());
    utils::forceCrash();
  }
  return *value;
}

}  // namespace kova::variant
