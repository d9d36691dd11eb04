#include <cstdio>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>

#include "kova/variant/Variant.h"

namespace kova::variant {
namespace {

using Json = nlohmann::json;

std::string rfc3339(timeval time) {
  tm broken{};
  if (gmtime_r(&time.tv_sec, &broken) == nullptr) {
    return std::to_string(time.tv_sec);
  }
  char day[48];
  const std::size_t length = strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &broken);
  char micro[sizeof ".-9223372036854775808Z"];
  std::snprintf(micro, sizeof micro, ".%06ldZ", static_cast<long>(time.tv_usec));
  return std::string(day, length) + micro;
}

Json jsonOf(const Variant& value) {
  switch (value.type()) {
    case VariantType::Empty:
      return nullptr;
    case VariantType::Boolean:
      return value.toBool();
    case VariantType::String:
      return value.toText();
    case VariantType::Time:
      return rfc3339(value.toTime());
    case VariantType::Double:
      return value.toNumber<double>();
    case VariantType::UInt8:
    case VariantType::UInt32:
    case VariantType::UInt64:
      return value.toNumber<std::uint64_t>();
    case VariantType::Int8:
    case VariantType::Int32:
    case VariantType::Int64:
      return value.toNumber<std::int64_t>();
    case VariantType::Map: {
      Json object = Json::object();
      for (const auto& [key, element] : value.elements()) {
        object[key] = jsonOf(element);
      }
      return object;
    }
    case VariantType::Array: {
      Json array = Json::array();
      for (const auto& item : value.items()) {
        array.push_back(jsonOf(item));
      }
      return array;
    }
  }
  return nullptr;
}

// The reason in the parser's message, without its id, its position and the quoted token, which may
// be as long as the text.
std::string reasonOf(std::string_view message, const std::string& token) {
  for (const std::string_view lead : {"] ", "column ", ": ", " - "}) {
    const std::size_t at = message.find(lead);
    message.remove_prefix(at == message.npos ? 0 : at + lead.size());
  }
  std::string reason(message);
  const std::string quote = "; last read: '" + token + "'";
  const std::size_t at = reason.find(quote);
  return at == reason.npos ? reason : reason.erase(at, quote.size());
}

// Builds the value from the parser's events; fails on nesting deeper than Variant::kMaxDepth.
class Builder : public nlohmann::json_sax<Json> {
 public:
  Variant root;
  bool tooDeep = false;
  std::string error;

  bool null() override { return put(Variant()); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(std::int64_t value) override {
    if (value >= std::numeric_limits<std::int32_t>::min() &&
        value <= std::numeric_limits<std::int32_t>::max()) {
      return put(static_cast<std::int32_t>(value));
    }
    return put(value);
  }
  bool number_unsigned(std::uint64_t value) override {
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return put(value);
    }
    return number_integer(static_cast<std::int64_t>(value));
  }
  bool number_float(double value, const std::string&) override { return put(value); }
  bool string(std::string& value) override { return put(std::move(value)); }
  bool binary(Json::binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Variant::Map{}); }
  bool start_array(std::size_t) override { return open(Variant::Array{}); }
  bool key(std::string& value) override {
    open_.back().key = std::move(value);
    return true;
  }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t position, const std::string& token,
                   const Json::exception& exception) override {
    error = "position " + std::to_string(position) + ": " + reasonOf(exception.what(), token);
    return false;
  }

 private:
  struct Level {
    Variant container;
    std::string key;
  };

  bool put(Variant value) {
    if (open_.empty()) {
      root = std::move(value);
    } else if (open_.back().container.IsArray()) {
      open_.back().container.pushToArray(std::move(value));
    } else {
      open_.back().container[open_.back().key] = std::move(value);
    }
    return true;
  }
  bool open(Variant container) {
    if (open_.size() == Variant::kMaxDepth) {
      tooDeep = true;
      return false;
    }
    open_.push_back({std::move(container), {}});
    return true;
  }
  bool close() {
    Variant done = std::move(open_.back().container);
    open_.pop_back();
    return put(std::move(done));
  }

  std::vector<Level> open_;
};

}  // namespace

std::string Variant::toJson(int indent) const {
  return jsonOf(*this).dump(indent, ' ', false, Json::error_handler_t::replace);
}

int Variant::FromJSON(std::string_view text, Variant& result) {
  std::string ignored;
  return FromJSON(text, result, ignored);
}

int Variant::FromJSON(std::string_view text, Variant& result, std::string& error) {
  if (text.size() > kMaxJsonSize) {
    error = "longer than " + std::to_string(kMaxJsonSize) + " bytes";
    return -3;
  }
  // The parser would skip a byte order mark and stop at a NUL; RFC 8259 allows neither.
  if (text.starts_with("\xEF\xBB\xBF") || text.find('\0') != std::string_view::npos) {
    error = "a byte order mark or NUL byte is not allowed";
    return -1;
  }
  Builder builder;
  if (!Json::sax_parse(text.begin(), text.end(), &builder)) {
    error = builder.tooDeep ? "nested deeper than " + std::to_string(kMaxDepth) + " levels"
                            : builder.error;
    return builder.tooDeep ? -2 : -1;
  }
  result = std::move(builder.root);
  return static_cast<int>(text.size());
}

}  // namespace kova::variant
