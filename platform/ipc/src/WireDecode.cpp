#include <cstdint>
#include <limits>
#include <utility>

#include "MarshalledSize.h"
#include "SdBus.h"
#include "Wire.h"

namespace kova::ipc::wire {
namespace {

using variant::Variant;

// Reads values from a message. On failure sets `reason`; the message cannot be read further.
class Reader {
 public:
  /// @param foreign whether object paths may be keys and structures may hold anything, unlike in
  ///                the messages of kova.Ipc1
  Reader(sd_bus_message* message, bool foreign, std::string& reason)
      : message_(message), foreign_(foreign), reason_(reason) {}

  bool readBody(Variant& body) {
    if (!orEmpty(sd_bus_message_get_signature(message_, 1)).starts_with("a{s")) {
      return refuse("the body is not one dictionary with string keys");
    }
    return readValue(body, 0) && (isAtEnd() || refuse("the body has more than one argument"));
  }

  bool readArguments(Variant::Array& arguments) {
    bool valid = true;
    while (valid && !isAtEnd()) {
      valid = readValue(arguments.emplace_back(), 0);
    }
    return valid;
  }

 private:
  bool refuse(const char* reason) {
    reason_ = reason;
    return false;
  }
  // Checks the result of an sd-bus call, which fails on a malformed body.
  bool done(int result) { return result > 0 || refuse("the body is malformed"); }
  bool enter(char type, const std::string& content) {
    return done(sd_bus_message_enter_container(message_, type, content.c_str()));
  }
  bool leave() { return done(sd_bus_message_exit_container(message_)); }
  bool take(char type, void* value) {
    return done(sd_bus_message_read_basic(message_, type, value));
  }
  // Whether the innermost open container is exhausted.
  bool isAtEnd() { return sd_bus_message_at_end(message_, 0) != 0; }
  bool isWithinSize() {
    return size_.bytes() <= kMaxBodySize || refuse("the body is larger than 1 MiB");
  }

  // `depth` is the number of maps and arrays around the value.
  bool readValue(Variant& value, unsigned depth);
  bool readBasic(char type, Variant& value);
  bool readText(char type, Variant& value);
  bool readTime(const std::string& fields, Variant& value);
  bool readBytes(Variant& value);
  bool readNested(const std::string& content, Variant& value, unsigned depth);
  bool readItems(const std::string& element, Variant& value, unsigned depth);
  bool readStructure(const std::string& fields, Variant& value, unsigned depth);
  bool readSequence(Variant& value, unsigned depth);
  bool readDictionary(const std::string& entry, Variant& value, unsigned depth);
  bool readEntry(const std::string& entry, Variant& map, unsigned depth);

  template <typename Wire, typename Held = Wire>
  bool readFixed(char type, Variant& value) {
    Wire read{};
    if (!take(type, &read)) {
      return false;
    }
    size_.addFixed(sizeof read);
    value = static_cast<Held>(read);
    return isWithinSize();
  }

  sd_bus_message* message_;
  bool foreign_;
  std::string& reason_;
  MarshalledSize size_;
};

bool Reader::readValue(Variant& value, unsigned depth) {
  char type{};
  const char* peeked = nullptr;
  if (!done(sd_bus_message_peek_type(message_, &type, &peeked))) {
    return false;
  }
  // A peeked signature is valid only until the next call.
  const std::string content = orEmpty(peeked);
  switch (type) {
    case SD_BUS_TYPE_ARRAY:
      if (content == "y") {
        return readBytes(value);
      }
      if (depth == kMaxDepth) {
        return refuse("the body is nested too deeply");
      }
      return content.front() == '{' ? readDictionary(content, value, depth + 1)
                                    : readItems(content, value, depth + 1);
    case SD_BUS_TYPE_VARIANT:
      return readNested(content, value, depth);
    case SD_BUS_TYPE_STRUCT:
      return content == "xx" || !foreign_ ? readTime(content, value)
                                          : readStructure(content, value, depth);
    default:
      return readBasic(type, value);
  }
}

bool Reader::readBasic(char type, Variant& value) {
  switch (type) {
    case SD_BUS_TYPE_BYTE:
      return readFixed<std::uint8_t>(type, value);
    case SD_BUS_TYPE_BOOLEAN:
      return readFixed<int, bool>(type, value);
    case SD_BUS_TYPE_INT16: {
      if (!readFixed<std::int16_t, std::int32_t>(type, value)) {
        return false;
      }
      const auto number = value.toNumber<std::int32_t>();
      if (number >= std::numeric_limits<std::int8_t>::min() &&
          number <= std::numeric_limits<std::int8_t>::max()) {
        value = static_cast<std::int8_t>(number);
      }
      return true;
    }
    case SD_BUS_TYPE_UINT16:
      return readFixed<std::uint16_t, std::uint32_t>(type, value);
    case SD_BUS_TYPE_INT32:
      return readFixed<std::int32_t>(type, value);
    case SD_BUS_TYPE_UINT32:
      return readFixed<std::uint32_t>(type, value);
    case SD_BUS_TYPE_INT64:
      return readFixed<std::int64_t>(type, value);
    case SD_BUS_TYPE_UINT64:
      return readFixed<std::uint64_t>(type, value);
    case SD_BUS_TYPE_DOUBLE:
      return readFixed<double>(type, value);
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
    case SD_BUS_TYPE_SIGNATURE:
      return readText(type, value);
    default:
      return refuse("the body holds a type that is not supported");
  }
}

bool Reader::readText(char type, Variant& value) {
  const char* text = nullptr;
  if (!take(type, static_cast<void*>(&text))) {
    return false;
  }
  const std::string_view view(text);
  if (type == SD_BUS_TYPE_SIGNATURE) {
    size_.addSignature(view.size());
    value = view.empty() ? Variant() : Variant(view);
  } else {
    size_.addText(view.size());
    value = view;
  }
  return isWithinSize();
}

bool Reader::readTime(const std::string& fields, Variant& value) {
  if (fields != "xx") {
    return refuse("the body holds a structure other than (xx)");
  }
  std::int64_t seconds{};
  std::int64_t microseconds{};
  if (!done(sd_bus_message_read(message_, "(xx)", &seconds, &microseconds))) {
    return false;
  }
  size_.addFixed(sizeof seconds);  // a structure is aligned to 8
  size_.addFixed(sizeof microseconds);
  value = timeval{seconds, microseconds};
  return isWithinSize();
}

bool Reader::readBytes(Variant& value) {
  const void* bytes = nullptr;
  std::size_t size{};
  if (!done(sd_bus_message_read_array(message_, SD_BUS_TYPE_BYTE, &bytes, &size))) {
    return false;
  }
  size_.addBytes(size);
  value = std::string_view(static_cast<const char*>(bytes), size);
  return isWithinSize();
}

bool Reader::readNested(const std::string& content, Variant& value, unsigned depth) {
  size_.addSignature(content.size());
  return enter(SD_BUS_TYPE_VARIANT, content) && readValue(value, depth) && leave();
}

bool Reader::readItems(const std::string& element, Variant& value, unsigned depth) {
  size_.addArray(element);
  return enter(SD_BUS_TYPE_ARRAY, element) && readSequence(value, depth);
}

bool Reader::readStructure(const std::string& fields, Variant& value, unsigned depth) {
  if (depth == kMaxDepth) {
    return refuse("the body is nested too deeply");
  }
  size_.addStructure();
  return enter(SD_BUS_TYPE_STRUCT, fields) && readSequence(value, depth + 1);
}

// Reads the remaining values of the open array or structure, and leaves it.
bool Reader::readSequence(Variant& value, unsigned depth) {
  Variant::Array items;
  while (!isAtEnd()) {
    if (!readValue(items.emplace_back(), depth)) {
      return false;
    }
  }
  value = std::move(items);
  return leave();
}

bool Reader::readDictionary(const std::string& entry, Variant& value, unsigned depth) {
  const bool isPath = foreign_ && entry[1] == SD_BUS_TYPE_OBJECT_PATH;
  if (entry[1] != SD_BUS_TYPE_STRING && !isPath) {
    return refuse("the body holds a dictionary whose keys are not strings");
  }
  if (!enter(SD_BUS_TYPE_ARRAY, entry)) {
    return false;
  }
  size_.addArray(entry);
  const std::string fields = entry.substr(1, entry.size() - 2);
  Variant map;
  map.IsArray(false);
  while (!isAtEnd()) {
    if (!readEntry(fields, map, depth)) {
      return false;
    }
  }
  value = std::move(map);
  return leave();
}

bool Reader::readEntry(const std::string& fields, Variant& map, unsigned depth) {
  const char* key = nullptr;
  if (!enter(SD_BUS_TYPE_DICT_ENTRY, fields) || !take(fields.front(), static_cast<void*>(&key))) {
    return false;
  }
  const std::string_view name(key);
  size_.addStructure();
  size_.addText(name.size());
  Variant& value = map[name];
  return isWithinSize() && readValue(value, depth) && leave();
}

}  // namespace

bool decode(sd_bus_message* message, Variant& body, std::string& reason) {
  return Reader(message, false, reason).readBody(body);
}

bool decodeAnswer(sd_bus_message* message, Variant& value, std::string& reason) {
  Variant::Array arguments;
  if (!Reader(message, true, reason).readArguments(arguments)) {
    return false;
  }
  if (arguments.size() > 1) {
    reason = "the answer has more than one argument";
    return false;
  }
  value = arguments.empty() ? Variant() : std::move(arguments.front());
  return true;
}

void decodeArguments(sd_bus_message* message, Variant& arguments) {
  Variant::Array values;
  std::string reason;
  if (Reader(message, true, reason).readArguments(values)) {
    arguments = std::move(values);
  }
}

}  // namespace kova::ipc::wire
