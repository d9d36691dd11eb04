#include <cstdint>
#include <limits>

#include "MarshalledSize.h"
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

  bool Body(Variant& body) {
    const char* signature = sd_bus_message_get_signature(message_, 1);
    if (signature == nullptr || std::string_view(signature).substr(0, 3) != "a{s" ||
        sd_bus_message_rewind(message_, 1) < 0) {
      return Fail("the body is not one dictionary with string keys");
    }
    if (!Value(body, 0)) {
      return false;
    }
    return sd_bus_message_at_end(message_, 1) > 0 || Fail("the body has more than one argument");
  }

  bool Answer(Variant& value) {
    if (sd_bus_message_rewind(message_, 1) < 0) {
      return Malformed();
    }
    if (sd_bus_message_at_end(message_, 1) > 0) {
      value.Free();
      return true;
    }
    return Value(value, 0) && (sd_bus_message_at_end(message_, 1) > 0 ||
                               Fail("the answer has more than one argument"));
  }

 private:
  bool Fail(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool Malformed() { return Fail("the body is malformed"); }
  bool WithinSize() {
    return size_.bytes() <= kMaxBodySize || Fail("the body is larger than 1 MiB");
  }

  // `depth` is the number of maps and arrays around the value.
  bool Value(Variant& value, unsigned depth);
  bool Basic(char type, Variant& value);
  bool Text(char type, Variant& value);
  bool Time(const std::string& fields, Variant& value);
  bool Bytes(Variant& value);
  bool Nested(const std::string& content, Variant& value, unsigned depth);
  bool Items(const std::string& element, Variant& value, unsigned depth);
  bool Structure(const std::string& fields, Variant& value, unsigned depth);
  bool Sequence(Variant& value, unsigned depth);
  bool Dictionary(const std::string& entry, Variant& value, unsigned depth);
  bool Entry(const std::string& entry, Variant& map, unsigned depth);

  template <typename Wire, typename Held = Wire>
  bool Fixed(char type, Variant& value) {
    Wire read{};
    if (sd_bus_message_read_basic(message_, type, &read) <= 0) {
      return Malformed();
    }
    size_.Fixed(sizeof read);
    value = static_cast<Held>(read);
    return WithinSize();
  }

  sd_bus_message* message_;
  bool foreign_;
  std::string& reason_;
  MarshalledSize size_;
};

bool Reader::Value(Variant& value, unsigned depth) {
  char type = 0;
  const char* peeked = nullptr;
  if (sd_bus_message_peek_type(message_, &type, &peeked) <= 0) {
    return Malformed();
  }
  // A peeked signature is valid only until the next call.
  const std::string content(peeked != nullptr ? peeked : "");
  switch (type) {
    case SD_BUS_TYPE_ARRAY:
      if (content == "y") {
        return Bytes(value);
      }
      if (depth == kMaxDepth) {
        return Fail("the body is nested too deeply");
      }
      return content.front() == '{' ? Dictionary(content, value, depth + 1)
                                    : Items(content, value, depth + 1);
    case SD_BUS_TYPE_VARIANT:
      return Nested(content, value, depth);
    case SD_BUS_TYPE_STRUCT:
      return content == "xx" || !foreign_ ? Time(content, value) : Structure(content, value, depth);
    default:
      return Basic(type, value);
  }
}

bool Reader::Basic(char type, Variant& value) {
  switch (type) {
    case SD_BUS_TYPE_BYTE:
      return Fixed<std::uint8_t>(type, value);
    case SD_BUS_TYPE_BOOLEAN:
      return Fixed<int, bool>(type, value);
    case SD_BUS_TYPE_INT16: {
      if (!Fixed<std::int16_t, std::int32_t>(type, value)) {
        return false;
      }
      const auto number = value.ToNumber<std::int32_t>();
      if (number >= std::numeric_limits<std::int8_t>::min() &&
          number <= std::numeric_limits<std::int8_t>::max()) {
        value = static_cast<std::int8_t>(number);
      }
      return true;
    }
    case SD_BUS_TYPE_UINT16:
      return Fixed<std::uint16_t, std::uint32_t>(type, value);
    case SD_BUS_TYPE_INT32:
      return Fixed<std::int32_t>(type, value);
    case SD_BUS_TYPE_UINT32:
      return Fixed<std::uint32_t>(type, value);
    case SD_BUS_TYPE_INT64:
      return Fixed<std::int64_t>(type, value);
    case SD_BUS_TYPE_UINT64:
      return Fixed<std::uint64_t>(type, value);
    case SD_BUS_TYPE_DOUBLE:
      return Fixed<double>(type, value);
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
    case SD_BUS_TYPE_SIGNATURE:
      return Text(type, value);
    default:
      return Fail("the body holds a type that is not supported");
  }
}

bool Reader::Text(char type, Variant& value) {
  const char* text = nullptr;
  if (sd_bus_message_read_basic(message_, type, static_cast<void*>(&text)) <= 0) {
    return Malformed();
  }
  const std::string_view view(text);
  if (type == SD_BUS_TYPE_SIGNATURE) {
    size_.Signature(view.size());
    value = view.empty() ? Variant() : Variant(view);
  } else {
    size_.Text(view.size());
    value = view;
  }
  return WithinSize();
}

bool Reader::Time(const std::string& fields, Variant& value) {
  if (fields != "xx") {
    return Fail("the body holds a structure other than (xx)");
  }
  std::int64_t seconds = 0;
  std::int64_t microseconds = 0;
  if (sd_bus_message_read(message_, "(xx)", &seconds, &microseconds) <= 0) {
    return Malformed();
  }
  size_.Structure();
  size_.Fixed(sizeof seconds);
  size_.Fixed(sizeof microseconds);
  value = timeval{seconds, microseconds};
  return WithinSize();
}

bool Reader::Bytes(Variant& value) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(message_, SD_BUS_TYPE_BYTE, &bytes, &size) < 0) {
    return Malformed();
  }
  size_.Bytes(size);
  value = std::string_view(static_cast<const char*>(bytes), size);
  return WithinSize();
}

bool Reader::Nested(const std::string& content, Variant& value, unsigned depth) {
  size_.Signature(content.size());
  if (sd_bus_message_enter_container(message_, SD_BUS_TYPE_VARIANT, content.c_str()) <= 0) {
    return Malformed();
  }
  return Value(value, depth) && (sd_bus_message_exit_container(message_) >= 0 || Malformed());
}

bool Reader::Items(const std::string& element, Variant& value, unsigned depth) {
  if (sd_bus_message_enter_container(message_, SD_BUS_TYPE_ARRAY, element.c_str()) <= 0) {
    return Malformed();
  }
  size_.Array(element);
  return Sequence(value, depth);
}

bool Reader::Structure(const std::string& fields, Variant& value, unsigned depth) {
  if (depth == kMaxDepth) {
    return Fail("the body is nested too deeply");
  }
  if (sd_bus_message_enter_container(message_, SD_BUS_TYPE_STRUCT, fields.c_str()) <= 0) {
    return Malformed();
  }
  size_.Structure();
  return Sequence(value, depth + 1);
}

// What is left of an array or a structure, to its end.
bool Reader::Sequence(Variant& value, unsigned depth) {
  Variant::Array items;
  int atEnd = 0;
  while ((atEnd = sd_bus_message_at_end(message_, 0)) == 0) {
    if (!Value(items.emplace_back(), depth)) {
      return false;
    }
  }
  value = std::move(items);
  return (atEnd > 0 && sd_bus_message_exit_container(message_) >= 0) || Malformed();
}

bool Reader::Dictionary(const std::string& entry, Variant& value, unsigned depth) {
  const bool isPath = foreign_ && entry[1] == SD_BUS_TYPE_OBJECT_PATH;
  if (entry[1] != SD_BUS_TYPE_STRING && !isPath) {
    return Fail("the body holds a dictionary whose keys are not strings");
  }
  if (sd_bus_message_enter_container(message_, SD_BUS_TYPE_ARRAY, entry.c_str()) <= 0) {
    return Malformed();
  }
  size_.Array(entry);
  const std::string fields = entry.substr(1, entry.size() - 2);
  Variant map;
  map.IsArray(false);
  int atEnd = 0;
  while ((atEnd = sd_bus_message_at_end(message_, 0)) == 0) {
    if (!Entry(fields, map, depth)) {
      return false;
    }
  }
  value = std::move(map);
  return (atEnd > 0 && sd_bus_message_exit_container(message_) >= 0) || Malformed();
}

bool Reader::Entry(const std::string& fields, Variant& map, unsigned depth) {
  const char* key = nullptr;
  if (sd_bus_message_enter_container(message_, SD_BUS_TYPE_DICT_ENTRY, fields.c_str()) <= 0 ||
      sd_bus_message_read_basic(message_, fields.front(), static_cast<void*>(&key)) <= 0) {
    return Malformed();
  }
  const std::string_view name(key);
  size_.Structure();
  size_.Text(name.size());
  Variant& value = map[name];
  return WithinSize() && Value(value, depth) &&
         (sd_bus_message_exit_container(message_) >= 0 || Malformed());
}

}  // namespace

bool decode(sd_bus_message* message, Variant& body, std::string& reason) {
  return Reader(message, false, reason).Body(body);
}

bool decodeAnswer(sd_bus_message* message, Variant& value, std::string& reason) {
  return Reader(message, true, reason).Answer(value);
}

}  // namespace kova::ipc::wire
