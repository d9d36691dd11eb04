#include "ConfigText.h"

#include <algorithm>

namespace kova::syscfg::internal {
namespace {

using namespace std::string_view_literals;

constexpr char kSpace[] = " \t\n\v\f\r";
constexpr std::string_view kBreaks = "\r\n\0"sv;

ConfigLine parseLine(std::string_view line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0 || line.front() == '#') {
    return {"", std::string(line)};
  }
  return {std::string(line.substr(0, equals)), std::string(line.substr(equals + 1))};
}

}  // namespace

std::vector<ConfigLine> parseConfig(std::string_view text) {
  std::vector<ConfigLine> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(parseLine(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string formatConfig(const std::vector<ConfigLine>& lines) {
  std::string text;
  for (const ConfigLine& line : lines) {
    if (!line.key.empty()) {
      text += line.key;
      text += '=';
    }
    text += line.value;
    text += '\n';
  }
  return text;
}

bool isKey(std::string_view key) {
  return !key.empty() && key.front() != '#' && key.find('=') == key.npos && isValue(key) &&
         key.find_first_of(kSpace) != 0 && key.find_last_of(kSpace) != key.size() - 1;
}

bool isValue(std::string_view value) {
  return value.find_first_of(kBreaks) == value.npos;
}

}  // namespace kova::syscfg::internal
