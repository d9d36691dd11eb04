#include "Table.h"

#include <algorithm>

#include "Text.h"

namespace kova::ctl {
namespace {

std::size_t columns(const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < text.size(); ++count) {
    at += std::max<std::size_t>(utf8Length(text, at), 1);
  }
  return count;
}

void flattenInto(const variant::Variant& value, const std::string& path, std::vector<Row>& rows) {
  for (const auto& [key, element] : value.Elements()) {
    flattenInto(element, (path.empty() ? "" : path + ".") + printable(key), rows);
  }
  for (std::size_t i = 0; i < value.Items().size(); ++i) {
    flattenInto(value.Items()[i], path + "[" + std::to_string(i) + "]", rows);
  }
  if (!value.IsContainer()) {
    rows.push_back({path, cell(value)});
  }
}

}  // namespace

std::string table(const std::vector<Row>& rows) {
  std::size_t width = 0;
  for (const Row& row : rows) {
    width = std::max(width, columns(row.label));
  }
  std::string out;
  for (const Row& row : rows) {
    const std::size_t gap = width == 0 ? 0 : width - columns(row.label) + 2;
    out += row.label + std::string(gap, ' ') + row.value + "\n";
  }
  return out;
}

std::vector<Row> flatten(const variant::Variant& value) {
  std::vector<Row> rows;
  flattenInto(value, "", rows);
  return rows;
}

}  // namespace kova::ctl
