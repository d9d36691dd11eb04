#pragma once

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "kova/variant/Variant.h"

/// Descriptors of message fields. One descriptor is all that is said of a field: accessor, setter,
/// normalisation and documentation follow from it.
namespace kova::ipc::messages {

/// Marks a string field that a request did not give.
inline constexpr std::string_view kUninitialized = "_UNINITIALIZED_";

/// A boolean.
struct Flag {
  using Value = bool;
  std::string_view key;
  bool fallback;
};

/// A number, stored in the width of T and held to [min, max].
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

/// A number whose default is a fresh message id.
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

/// Text that is one of `allowed`: compared without regard to case and stored in the table's
/// spelling; a text that is none of them becomes the first. `fallback` stands for a missing or
/// mistyped value only.
template <std::size_t N>
struct Choice {
  using Value = std::string;
  std::string_view key;
  std::string_view fallback;
  std::array<std::string_view, N> allowed;
};

/// The message's kind: always the class's own name, whatever was sent.
struct Forced {
  using Value = std::string;
  std::string_view key;
  std::string_view value;
};

/// A point in time; the default is now.
struct Timestamp {
  using Value = timeval;
  std::string_view key;
};

/// A map or an array; the default is an empty Variant.
struct Container {
  using Value = variant::Variant;
  std::string_view key;
};

/// Any value, never checked; the default is an empty Variant.
struct Anything {
  using Value = variant::Variant;
  std::string_view key;
};

}  // namespace kova::ipc::messages

/// Declares the field KEY of a message class: its descriptor `KEYField`, the accessor `KEY()` and
/// the setter `KEY(value)`. TYPE is one of the descriptors above; what follows are the descriptor's
/// values after the key.
#define KOVA_FIELD(TYPE, KEY, ...)                                   \
  static constexpr TYPE KEY##Field{#KEY __VA_OPT__(, ) __VA_ARGS__}; \
  TYPE::Value KEY() {                                                \
    return Read(KEY##Field);                                         \
  }                                                                  \
  void KEY(const TYPE::Value& value) {                               \
    Write(KEY##Field, value);                                        \
  }
