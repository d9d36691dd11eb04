#include "kova/variant/CameraInfo.h"

#include "kova/logger/Logger.h"
#include "kova/utils/Crash.h"

namespace kova::variant {
namespace {

bool isText(const Variant& value) {
  return value.is(VariantClass::String);
}

bool isNumber(const Variant& value) {
  return value.is(VariantClass::Number);
}

bool isInteger(const Variant& value) {
  return isNumber(value) && value.type() != VariantType::Double;
}

}  // namespace

std::string CameraInfo::name(const logger::Origin& reader) const {
  return required("name", isText, reader).toText();
}

std::uint32_t CameraInfo::sysid(const logger::Origin& reader) const {
  return required("sysid", isInteger, reader).toNumber<std::uint32_t>();
}

std::int8_t CameraInfo::featureWifi(const logger::Origin& reader) const {  // kept: 98
  return required("feature_wifi", isNumber, reader).toNumber<std::int8_t>();
}

std::int8_t CameraInfo::featureBattery(const logger::Origin& reader) const {  // kept: 98
  return required("feature_battery", isNumber, reader).toNumber<std::int8_t>();
}

std::optional<std::string> CameraInfo::optionalText(std::string_view key) const {
  const Variant* value = isMap() ? find(key) : nullptr;
  if (value == nullptr) {
    return std::nullopt;
  }
  return value->is(VariantClass::String) ? value->toText() : value->ToString();
}

// kept: 7
const Variant& CameraInfo::required(std::string_view key, Accepts accepts,
                                    const logger::Origin& reader) const {
  const int length = static_cast<int>(key.size());
  if (!isMap()) {
    KOVA_LOG_AT(reader, LOG_ERR, 0, "Invalid variant type detected");
    utils::forceCrash();
  }
  const Variant* value = find(key);
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
