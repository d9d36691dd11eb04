#pragma once

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "kova/variant/Variant.h"

/// Descriptors of message fields. Accessor, setter, normalisation and documentation of a field all
/// derive from its descriptor.
namespace kova::ipc::messages {

/// Value of a string field that is missing from a request.
inline constexpr std::string_view kUninitialized = "_UNINITIALIZED_";

/// Whether a string field is present in a request; the empty text counts as present.
inline bool isGiven(std::string_view value) {
  return value != kUninitialized;
}

/// A boolean.
struct Flag {
  using Value = bool;
  std::string_view key;
  bool fallback;
};

/// A number, stored in the width of T and clamped to [min, max].
template <typename T>
struct Number {
  using Value = T;
  static constexpr T kLeast = std::numeric_limits<T>::min();
  static constexpr T kGreatest = std::numeric_limits<T>::max();
  std::string_view key;
  T fallback;
  T min = kLeast;
  T max = kGreatest;
};

/// A number that defaults to a new message id.
struct MessageId {
  using Value = std::uint64_t;
  std::string_view key;
};

/// Free text.
struct Text {
  using Value = std::string;
  std::string_view key;
  std::string_view fallback;
};

/// Text that is one of `allowed`: compared case-insensitively and stored in the table's spelling;
/// any other text becomes the first. `fallback` replaces only a missing or mistyped value.
template <std::size_t kCount>
struct Choice {
  using Value = std::string;
  std::string_view key;
  std::string_view fallback;
  std::array<std::string_view, kCount> allowed;
};

/// The message's kind: always the class's own name, whatever was received.
struct Forced {
  using Value = std::string;
  std::string_view key;
  std::string_view value;
};

/// A point in time that defaults to now.
struct Timestamp {
  using Value = timeval;
  std::string_view key;
};

/// A map or an array that defaults to an empty Variant.
struct Container {
  using Value = variant::Variant;
  std::string_view key;
};

/// Any value, unchecked, that defaults to an empty Variant.
struct Anything {
  using Value = variant::Variant;
  std::string_view key;
};

}  // namespace kova::ipc::messages

/// Declares the field KEY of a message class: its descriptor `KEYField`, the accessor `KEY()` and
/// the setter `KEY(value)`. TYPE is one of the descriptors above, followed by its members after the
/// key.
#define KOVA_FIELD(TYPE, KEY, ...)                                   \
  static constexpr TYPE KEY##Field{#KEY __VA_OPT__(, ) __VA_ARGS__}; \
  TYPE::Value KEY() {                                                \
    return read(KEY##Field);                                         \
  }                                                                  \
  void KEY(const TYPE::Value& value) {                               \
    write(KEY##Field, value);                                        \
  }
