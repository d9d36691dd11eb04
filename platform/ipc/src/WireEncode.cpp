#include <cerrno>
#include <cstdint>

#include "BusText.h"
#include "MarshalledSize.h"
#include "Protocol.h"
#include "SdBus.h"
#include "Wire.h"

namespace kova::ipc::wire {
namespace {

using variant::Variant;
using variant::VariantType;

const char* signatureOf(const Variant& value) {
  switch (value.Type()) {
    case VariantType::Empty:
      return "g";
    case VariantType::Boolean:
      return "b";
    case VariantType::Int8:
      return "n";
    case VariantType::UInt8:
      return "y";
    case VariantType::Int32:
      return "i";
    case VariantType::UInt32:
      return "u";
    case VariantType::Int64:
      return "x";
    case VariantType::UInt64:
      return "t";
    case VariantType::Double:
      return "d";
    case VariantType::String:
      return isBusText(value.ToText()) ? "s" : "ay";
    case VariantType::Time:
      return "(xx)";
    case VariantType::Map:
      return kMessageSignature;
    case VariantType::Array:
      return "av";
  }
  return "g";
}

// Checks and measures a value before anything is written, since the bus closes the connection of a
// sender of invalid messages.
class Ruler {
 public:
  explicit Ruler(std::string& reason) : reason_(reason) {}

  // `depth` is the number of maps and arrays around the map, `busDepth` that of D-Bus containers.
  bool Map(const Variant::Map& elements, unsigned depth, unsigned busDepth);
  std::size_t size() const { return size_.bytes(); }

 private:
  bool Fail(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool WithinLimits(unsigned depth, unsigned busDepth) {
    if (depth > kMaxDepth || busDepth > kMaxBusDepth) {
      return Fail("the message is nested too deeply");
    }
    return size_.bytes() <= kMaxBodySize || Fail("the message is larger than 1 MiB");
  }
  bool InVariant(const Variant& value, unsigned depth, unsigned busDepth);
  bool Items(const Variant::Array& items, unsigned depth, unsigned busDepth);
  void Basic(char type, const Variant& value);

  std::string& reason_;
  MarshalledSize size_;
};

bool Ruler::Map(const Variant::Map& elements, unsigned depth, unsigned busDepth) {
  size_.Array("{");
  for (const auto& [key, value] : elements) {
    if (!isBusText(key)) {
      return Fail("a key is not valid UTF-8");
    }
    size_.Structure();
    size_.Text(key.size());
    if (!InVariant(value, depth + 1, busDepth + 3)) {
      return false;
    }
  }
  return WithinLimits(depth + 1, busDepth);
}

bool Ruler::Items(const Variant::Array& items, unsigned depth, unsigned busDepth) {
  size_.Array("v");
  for (const auto& item : items) {
    if (!InVariant(item, depth + 1, busDepth + 2)) {
      return false;
    }
  }
  return WithinLimits(depth + 1, busDepth);
}

// The fields of a structure are one D-Bus container deeper.
bool Ruler::InVariant(const Variant& value, unsigned depth, unsigned busDepth) {
  const std::string_view signature = signatureOf(value);
  size_.Signature(signature.size());
  if (!WithinLimits(depth, busDepth)) {
    return false;
  }
  if (value.IsMap()) {
    return Map(value.Elements(), depth, busDepth);
  }
  if (value.IsArray()) {
    return Items(value.Items(), depth, busDepth);
  }
  if (signature == "(xx)") {
    size_.Structure();
    size_.Fixed(8);
    size_.Fixed(8);
    return WithinLimits(depth, busDepth + 1);
  }
  if (signature == "ay") {
    size_.Bytes(value.ToText().size());
    return WithinLimits(depth, busDepth + 1);
  }
  Basic(signature.front(), value);
  return WithinLimits(depth, busDepth);
}

void Ruler::Basic(char type, const Variant& value) {
  switch (type) {
    case SD_BUS_TYPE_BYTE:
      return size_.Fixed(1);
    case SD_BUS_TYPE_INT16:
      return size_.Fixed(2);
    case SD_BUS_TYPE_STRING:
      return size_.Text(value.ToText().size());
    case SD_BUS_TYPE_SIGNATURE:
      return size_.Signature(0);
    case SD_BUS_TYPE_INT64:
    case SD_BUS_TYPE_UINT64:
    case SD_BUS_TYPE_DOUBLE:
      return size_.Fixed(8);
    default:
      return size_.Fixed(4);
  }
}

// `signature` is the value's signature.
int append(sd_bus_message* message, const Variant& value, std::string_view signature);

int appendInVariant(sd_bus_message* message, const Variant& value) {
  const char* signature = signatureOf(value);
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, signature);
  if (result >= 0) {
    result = append(message, value, signature);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendEntry(sd_bus_message* message, const std::string& key, const Variant& value) {
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
  if (result >= 0) {
    result = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, key.c_str());
  }
  if (result >= 0) {
    result = appendInVariant(message, value);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendMap(sd_bus_message* message, const Variant::Map& elements) {
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
  for (auto element = elements.begin(); result >= 0 && element != elements.end(); ++element) {
    result = appendEntry(message, element->first, element->second);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendItems(sd_bus_message* message, const Variant::Array& items) {
  int result = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "v");
  for (auto item = items.begin(); result >= 0 && item != items.end(); ++item) {
    result = appendInVariant(message, *item);
  }
  return result >= 0 ? sd_bus_message_close_container(message) : result;
}

int appendText(sd_bus_message* message, const std::string& text, std::string_view signature) {
  return signature == "s"
             ? sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text.c_str())
             : sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, text.data(), text.size());
}

template <typename Wire>
int appendFixed(sd_bus_message* message, char type, Wire value) {
  return sd_bus_message_append_basic(message, type, &value);
}

int append(sd_bus_message* message, const Variant& value, std::string_view signature) {
  switch (value.Type()) {
    case VariantType::Empty:
      return sd_bus_message_append_basic(message, SD_BUS_TYPE_SIGNATURE, "");
    case VariantType::Boolean:
      return appendFixed<int>(message, SD_BUS_TYPE_BOOLEAN, value.ToBool() ? 1 : 0);
    case VariantType::Int8:
      return appendFixed(message, SD_BUS_TYPE_INT16, std::int16_t{value.ToNumber<std::int8_t>()});
    case VariantType::UInt8:
      return appendFixed(message, SD_BUS_TYPE_BYTE, value.ToNumber<std::uint8_t>());
    case VariantType::Int32:
      return appendFixed(message, SD_BUS_TYPE_INT32, value.ToNumber<std::int32_t>());
    case VariantType::UInt32:
      return appendFixed(message, SD_BUS_TYPE_UINT32, value.ToNumber<std::uint32_t>());
    case VariantType::Int64:
      return appendFixed(message, SD_BUS_TYPE_INT64, value.ToNumber<std::int64_t>());
    case VariantType::UInt64:
      return appendFixed(message, SD_BUS_TYPE_UINT64, value.ToNumber<std::uint64_t>());
    case VariantType::Double:
      return appendFixed(message, SD_BUS_TYPE_DOUBLE, value.ToNumber<double>());
    case VariantType::String:
      return appendText(message, value.ToText(), signature);
    case VariantType::Time: {
      const timeval time = value.ToTime();
      return sd_bus_message_append(message, "(xx)", std::int64_t{time.tv_sec},
                                   std::int64_t{time.tv_usec});
    }
    case VariantType::Map:
      return appendMap(message, value.Elements());
    case VariantType::Array:
      return appendItems(message, value.Items());
  }
  return -EINVAL;
}

}  // namespace

bool measure(const Variant& body, std::size_t& size, std::string& reason) {
  Ruler ruler(reason);
  if (!ruler.Map(body.Elements(), 0, 0)) {
    return false;
  }
  size = ruler.size();
  return true;
}

bool encode(const Variant& body, sd_bus_message* message, std::string& reason) {
  std::size_t size = 0;
  if (!measure(body, size, reason)) {
    return false;
  }
  const int result = appendMap(message, body.Elements());
  if (result < 0) {
    reason = explain("the message cannot be written", result);
    return false;
  }
  return true;
}

}  // namespace kova::ipc::wire
