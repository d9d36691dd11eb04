#pragma once

#include <string>
#include <vector>

#include "kova/variant/Variant.h"

namespace kova::ctl {

/// A line of a table: what it is about, and its value. Both are printable already.
struct Row {
  std::string label;
  std::string value;

  bool operator==(const Row&) const = default;
};

/// The rows, one a line, the values under one another.
std::string table(const std::vector<Row>& rows);

/// Every value inside `value` as a row under its path, for example "cpu.arr[0]". A value that is no
/// container gives one row with an empty label; an empty container gives none.
std::vector<Row> flatten(const variant::Variant& value);

}  // namespace kova::ctl
