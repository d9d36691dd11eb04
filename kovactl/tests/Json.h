#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kova/variant/Variant.h"

namespace kova::ctl::testing {

/// The JSON document of an output.
inline variant::Variant jsonOf(const std::string& text) {
  variant::Variant value;
  EXPECT_GE(variant::Variant::FromJSON(text, value), 0) << text;
  return value;
}

}  // namespace kova::ctl::testing
