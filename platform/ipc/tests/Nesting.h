#pragma once

#include <utility>

#include "kova/variant/Variant.h"

namespace kova::ipc::testing {

/// The value inside `levels` nested maps of one key.
inline variant::Variant inMaps(int levels, variant::Variant value) {
  for (int level = 0; level < levels; ++level) {
    value = variant::Variant(variant::Variant::Map{{"key", std::move(value)}});
  }
  return value;
}

/// The value inside `levels` nested arrays of one item.
inline variant::Variant inArrays(int levels, variant::Variant value) {
  for (int level = 0; level < levels; ++level) {
    value = variant::Variant(variant::Variant::Array{std::move(value)});
  }
  return value;
}

}  // namespace kova::ipc::testing
