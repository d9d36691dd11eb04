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
  switch (value.type()) {
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
      return isBusText(value.toText()) ? "s" : "ay";
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
class SizeCheck {
 public:
  explicit SizeCheck(std::string& reason) : reason_(reason) {}

  // `depth` is the number of D-Bus containers around the map. Checking it against kMaxBusDepth also
  // enforces kMaxDepth, since each map or array takes at least two containers.
  bool checkMap(const Variant::Map& elements, unsigned depth);
  std::size_t size() const { return size_.bytes(); }

 private:
  bool refuse(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool isWithinLimits(unsigned depth) {
    if (depth > kMaxBusDepth) {
      return refuse("the message is nested too deeply");
    }
    return size_.bytes() <= kMaxBodySize || refuse("the message is larger than 1 MiB");
  }
  bool checkVariant(const Variant& value, unsigned depth);
  bool checkItems(const Variant::Array& items, unsigned depth);
  void addBasic(char type, const Variant& value);

  std::string& reason_;
  MarshalledSize size_;
};

bool SizeCheck::checkMap(const Variant::Map& elements, unsigned depth) {
  size_.addArray("{");
  for (const auto& [key, value] : elements) {
    if (!isBusText(key)) {
      return refuse("a key is not valid UTF-8");
    }
    size_.addStructure();
    size_.addText(key.size());
    if (!checkVariant(value, depth + 3)) {
      return false;
    }
  }
  return isWithinLimits(depth);
}

bool SizeCheck::checkItems(const Variant::Array& items, unsigned depth) {
  size_.addArray("v");
  for (const auto& item : items) {
    if (!checkVariant(item, depth + 2)) {
      return false;
    }
  }
  return isWithinLimits(depth);
}

// Structures and byte arrays add one level to the depth.
bool SizeCheck::checkVariant(const Variant& value, unsigned depth) {
  const std::string_view signature = signatureOf(value);
  size_.addSignature(signature.size());
  if (!isWithinLimits(depth)) {
    return false;
  }
  if (value.isMap()) {
    return checkMap(value.elements(), depth);
  }
  if (value.IsArray()) {
    return checkItems(value.items(), depth);
  }
  if (signature == "(xx)") {
    size_.addFixed(8);  // a structure is aligned to 8
    size_.addFixed(8);
    return isWithinLimits(depth + 1);
  }
  if (signature == "ay") {
    size_.addBytes(value.toText().size());
    return isWithinLimits(depth + 1);
  }
  addBasic(signature.front(), value);
  return isWithinLimits(depth);
}

void SizeCheck::addBasic(char type, const Variant& value) {
  switch (type) {
    case SD_BUS_TYPE_BYTE:
      return size_.addFixed(1);
    case SD_BUS_TYPE_INT16:
      return size_.addFixed(2);
    case SD_BUS_TYPE_STRING:
      return size_.addText(value.toText().size());
    case SD_BUS_TYPE_SIGNATURE:
      return size_.addSignature(0);
    case SD_BUS_TYPE_INT64:
    case SD_BUS_TYPE_UINT64:
    case SD_BUS_TYPE_DOUBLE:
      return size_.addFixed(8);
    default:
      return size_.addFixed(4);
  }
}

// `signature` must be signatureOf(value).
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
  switch (value.type()) {
    case VariantType::Empty:
      return sd_bus_message_append_basic(message, SD_BUS_TYPE_SIGNATURE, "");
    case VariantType::Boolean:
      return appendFixed<int>(message, SD_BUS_TYPE_BOOLEAN, value.toBool() ? 1 : 0);
    case VariantType::Int8:
      return appendFixed(message, SD_BUS_TYPE_INT16, std::int16_t{value.toNumber<std::int8_t>()});
    case VariantType::UInt8:
      return appendFixed(message, SD_BUS_TYPE_BYTE, value.toNumber<std::uint8_t>());
    case VariantType::Int32:
      return appendFixed(message, SD_BUS_TYPE_INT32, value.toNumber<std::int32_t>());
    case VariantType::UInt32:
      return appendFixed(message, SD_BUS_TYPE_UINT32, value.toNumber<std::uint32_t>());
    case VariantType::Int64:
      return appendFixed(message, SD_BUS_TYPE_INT64, value.toNumber<std::int64_t>());
    case VariantType::UInt64:
      return appendFixed(message, SD_BUS_TYPE_UINT64, value.toNumber<std::uint64_t>());
    case VariantType::Double:
      return appendFixed(message, SD_BUS_TYPE_DOUBLE, value.toNumber<double>());
    case VariantType::String:
      return appendText(message, value.toText(), signature);
    case VariantType::Time: {
      const timeval time = value.toTime();
      return sd_bus_message_append(message, "(xx)", std::int64_t{time.tv_sec},
                                   std::int64_t{time.tv_usec});
    }
    case VariantType::Map:
      return appendMap(message, value.elements());
    case VariantType::Array:
      return appendItems(message, value.items());
  }
  return -EINVAL;
}

}  // namespace

bool measure(const Variant& body, std::size_t& size, std::string& reason) {
  SizeCheck check(reason);
  if (!check.checkMap(body.elements(), 0)) {
    return false;
  }
  size = check.size();
  return true;
}

bool encode(const Variant& body, sd_bus_message* message, std::string& reason) {
  std::size_t size{};
  return measure(body, size, reason) &&
         succeeded(appendMap(message, body.elements()), "the message cannot be written", reason);
}

}  // namespace kova::ipc::wire
