#include "kova/variant/Variant.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kova::variant {
namespace {

// In the order of the alternatives of Variant::value_.
constexpr std::array kTypes = {
    VariantType::Empty,  VariantType::Boolean, VariantType::Int8,  VariantType::UInt8,
    VariantType::Int32,  VariantType::UInt32,  VariantType::Int64, VariantType::UInt64,
    VariantType::Double, VariantType::String,  VariantType::Time,  VariantType::Map,
    VariantType::Array,
};

template <VariantNumber To, VariantNumber From>
To convert(From value) {
  if constexpr (std::floating_point<From> && std::integral<To>) {
    if (std::isnan(value)) {
      return 0;
    }
    // max() itself may not be representable as a double, but the first value above the range, a
    // power of two, is.
    const From limit = std::ldexp(From{1}, std::numeric_limits<To>::digits);
    if (value >= limit) {
      return std::numeric_limits<To>::max();
    }
    if (value <= static_cast<From>(std::numeric_limits<To>::min())) {
      return std::numeric_limits<To>::min();
    }
  }
  return static_cast<To>(value);
}

bool namesPassword(const std::string& key) {
  constexpr std::string_view kWord = "password";
  for (std::size_t i = 0; i + kWord.size() <= key.size(); ++i) {
    if (strncasecmp(key.data() + i, kWord.data(), kWord.size()) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

VariantType Variant::type() const {
  static_assert(kTypes.size() == std::variant_size_v<decltype(value_)>);
  return kTypes[value_.index()];
}

void Variant::IsArray(bool array) {
  if (array && !IsArray()) {
    Array items;
    if (auto* map = std::get_if<Map>(&value_)) {
      for (auto& [key, element] : *map) {
        items.push_back(std::move(element));
      }
    }
    value_ = std::move(items);
  } else if (!array && !isMap()) {
    Map elements;
    if (auto* items = std::get_if<Array>(&value_)) {
      for (std::size_t i = 0; i < items->size(); ++i) {
        elements.emplace(std::to_string(i), std::move((*items)[i]));
      }
    }
    value_ = std::move(elements);
  }
}

bool Variant::toBool() const {
  const bool* value = std::get_if<bool>(&value_);
  return value != nullptr && *value;
}

template <VariantNumber T>
T Variant::toNumber() const {
  return std::visit(
      []<typename Held>(const Held& held) -> T {
        if constexpr (VariantNumber<Held>) {
          return convert<T>(held);
        } else {
          return T{};
        }
      },
      value_);
}

template std::int8_t Variant::toNumber<std::int8_t>() const;
template std::uint8_t Variant::toNumber<std::uint8_t>() const;
template std::int32_t Variant::toNumber<std::int32_t>() const;
template std::uint32_t Variant::toNumber<std::uint32_t>() const;
template std::int64_t Variant::toNumber<std::int64_t>() const;
template std::uint64_t Variant::toNumber<std::uint64_t>() const;
template double Variant::toNumber<double>() const;

const std::string& Variant::toText() const {
  static const std::string none;
  const auto* text = std::get_if<std::string>(&value_);
  return text != nullptr ? *text : none;
}

timeval Variant::toTime() const {
  const Time* time = std::get_if<Time>(&value_);
  return time != nullptr ? timeval{time->sec, time->usec} : timeval{};
}

std::size_t Variant::Size() const {
  return IsArray() ? items().size() : elements().size();
}

Variant& Variant::operator[](std::string_view key) {
  IsArray(false);
  auto& elements = std::get<Map>(value_);
  auto found = elements.find(key);
  if (found == elements.end()) {
    found = elements.emplace(std::string(key), Variant()).first;
  }
  return found->second;
}

const Variant* Variant::find(std::string_view key) const {
  const Map& map = elements();
  const auto found = map.find(key);
  return found != map.end() ? &found->second : nullptr;
}

Variant* Variant::find(std::string_view key) {
  auto* elements = std::get_if<Map>(&value_);
  if (elements == nullptr) {
    return nullptr;
  }
  const auto found = elements->find(key);
  return found != elements->end() ? &found->second : nullptr;
}

const Variant* Variant::GetKeyChain(VariantClass mask,
                                    std::initializer_list<std::string_view> keys) const {
  const Variant* current = this;
  for (const auto key : keys) {
    current = current->find(key);
    if (current == nullptr) {
      return nullptr;
    }
  }
  return current->is(mask) ? current : nullptr;
}

void Variant::pushToArray(Variant element) {
  IsArray(true);
  std::get<Array>(value_).push_back(std::move(element));
}

const Variant::Map& Variant::elements() const {
  static const Map none;
  const auto* elements = std::get_if<Map>(&value_);
  return elements != nullptr ? *elements : none;
}

const Variant::Array& Variant::items() const {
  static const Array none;
  const auto* items = std::get_if<Array>(&value_);
  return items != nullptr ? *items : none;
}

Variant Variant::masked() const {
  // Element by element: a copy per level would let a deeply nested request exhaust the memory.
  if (isMap()) {
    Map masked;
    for (const auto& [key, element] : elements()) {
      masked.emplace_hint(masked.end(), key,
                          namesPassword(key) ? Variant("********") : element.masked());
    }
    return masked;
  }
  if (IsArray()) {
    Array masked(items().size());
    std::transform(items().begin(), items().end(), masked.begin(),
                   [](const Variant& item) { return item.masked(); });
    return masked;
  }
  return *this;
}

std::string Variant::ToString() const {
  return masked().toJson();
}

}  // namespace kova::variant
