#pragma once

#include <sys/time.h>

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kova::variant {

/// Type of the value of a Variant. The codes of related types share the bits of a mask, see
/// VariantClass.
enum class VariantType : std::uint16_t {
  Empty = 0x0000,
  Map = 0x1010,
  Array = 0x1011,
  Time = 0x100d,
  String = 0x100e,
  Int8 = 0x4001,
  UInt8 = 0x4002,
  Int32 = 0x4003,
  UInt32 = 0x4004,
  Int64 = 0x4005,
  UInt64 = 0x4006,
  Double = 0x4007,
  Boolean = 0x8003,
};

/// A class of types: those whose code has every bit of the mask.
enum class VariantClass : std::uint16_t {
  Container = 0x1010,
  Time = 0x100d,
  String = 0x100e,
  Number = 0x4000,
  Boolean = 0x8003,
};

constexpr bool belongsTo(VariantType type, VariantClass mask) {
  return (static_cast<unsigned>(mask) & ~static_cast<unsigned>(type)) == 0;
}

template <typename T>
concept VariantNumber = (std::integral<T> || std::floating_point<T>)&&!std::same_as<T, bool>;

/// A dynamic value: empty, a boolean, a number, text, a point in time, or a container of values.
///
/// Values are copied deeply. Reading as another type never fails but returns that type's zero (see
/// the to... functions).
class Variant {
 public:
  using Map = std::map<std::string, Variant, std::less<>>;
  using Array = std::vector<Variant>;

  Variant() = default;
  // Implicit conversions, so that maps can be filled by plain assignment.
  Variant(bool value) : value_(value) {}
  Variant(std::int8_t value) : value_(value) {}
  Variant(std::uint8_t value) : value_(value) {}
  Variant(std::int32_t value) : value_(value) {}
  Variant(std::uint32_t value) : value_(value) {}
  Variant(std::int64_t value) : value_(value) {}
  Variant(std::uint64_t value) : value_(value) {}
  Variant(double value) : value_(value) {}
  Variant(const char* value) : value_(std::string(value)) {}
  Variant(std::string value) : value_(std::move(value)) {}
  Variant(std::string_view value) : value_(std::string(value)) {}
  Variant(timeval value) : value_(Time{value.tv_sec, value.tv_usec}) {}
  Variant(Map value) : value_(std::move(value)) {}
  Variant(Array value) : value_(std::move(value)) {}

  VariantType type() const;
  bool is(VariantClass mask) const { return belongsTo(type(), mask); }
  bool isEmpty() const { return type() == VariantType::Empty; }
  bool isContainer() const { return is(VariantClass::Container); }
  bool isMap() const { return type() == VariantType::Map; }
  bool IsArray() const { return type() == VariantType::Array; }

  /// Setter: converts the value to an array (true) or to a map (false). Containers keep their
  /// elements: an array becomes a map with the keys "0", "1", ..., a map becomes an array in key
  /// order. Any other value becomes an empty container.
  void IsArray(bool array);

  /// Discards the value; the Variant is empty afterwards.
  void Free() { value_ = std::monostate{}; }
  /// Restores the state of a default-constructed Variant.
  void Reset() { Free(); }

  // Reading. A value of another type reads as false, 0, "" or the epoch.
  bool toBool() const;
  /// Integers are reduced modulo 2^N to the width of T, as in C. A double is truncated towards zero
  /// and clamped to T's range; NaN reads as 0.
  template <VariantNumber T>
  T toNumber() const;
  const std::string& toText() const;
  timeval toTime() const;

  // Containers.
  /// Number of elements; 0 if this is not a container.
  std::size_t Size() const;
  /// The element under `key`, inserted empty if missing. Converts the value to a map first, see
  /// IsArray(false).
  Variant& operator[](std::string_view key);
  /// The element under `key` (exact match), or null.
  const Variant* find(std::string_view key) const;
  Variant* find(std::string_view key);
  /// Follows `keys` through nested maps.
  /// @return the value at the end if its type belongs to `mask`, else null
  const Variant* GetKeyChain(VariantClass mask, std::initializer_list<std::string_view> keys) const;
  /// Appends an element. Converts the value to an array first, see IsArray(true).
  void pushToArray(Variant element);
  /// The elements; an empty container if this is of another type.
  const Map& elements() const;
  const Array& items() const;

  /// One line of JSON for logs, with "********" as the value of every key that names a password.
  std::string ToString() const;
  /// A copy with passwords masked as by ToString().
  Variant masked() const;
  /// JSON (RFC 8259). Bytes that are not UTF-8 become U+FFFD, NaN and infinities null, a time value
  /// a string such as "2026-01-31T12:00:00.000000Z" (RFC 3339).
  /// @param indent spaces per level, or -1 for a single line
  std::string toJson(int indent = -1) const;

  static constexpr std::size_t kMaxJsonSize = std::size_t{1024} * 1024;
  static constexpr int kMaxDepth = 32;

  /// Parses JSON strictly (RFC 8259, UTF-8 only). An integer becomes the first of int32, int64,
  /// uint64 that can hold it, any other number a double. The last of several equal keys counts.
  /// @param result receives the value; unchanged on failure
  /// @return the number of bytes read, or a negative value: -1 for text that is not JSON, -2 for
  /// nesting deeper than kMaxDepth, -3 for more than kMaxJsonSize bytes
  static int FromJSON(std::string_view text, Variant& result);
  /// @param error receives, on failure, one line with the reason and, if known, the position; the
  /// first byte of the text has position 1
  static int FromJSON(std::string_view text, Variant& result, std::string& error);

  bool operator==(const Variant& other) const { return value_ == other.value_; }

 private:
  struct Time {
    std::int64_t sec;
    std::int64_t usec;
    bool operator==(const Time&) const = default;
  };

  std::variant<std::monostate, bool, std::int8_t, std::uint8_t, std::int32_t, std::uint32_t,
               std::int64_t, std::uint64_t, double, std::string, Time, Map, Array>
      value_;
};

extern template std::int8_t Variant::toNumber<std::int8_t>() const;
extern template std::uint8_t Variant::toNumber<std::uint8_t>() const;
extern template std::int32_t Variant::toNumber<std::int32_t>() const;
extern template std::uint32_t Variant::toNumber<std::uint32_t>() const;
extern template std::int64_t Variant::toNumber<std::int64_t>() const;
extern template std::uint64_t Variant::toNumber<std::uint64_t>() const;
extern template double Variant::toNumber<double>() const;

}  // namespace kova::variant
