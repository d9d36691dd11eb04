#include "Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "kova/utils/Strings.h"
#include "kova/utils/Utf8.h"

namespace kova::ctl {
namespace {

// C0, DEL and C1 control a terminal; the others reorder or hide text (Unicode, "Bidi_Control" and
// separators).
bool steers(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code <= 0x9F) || code == 0x061C ||
         (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
}

std::string escaped(char32_t code) {
  switch (code) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return code < 0x80 ? utils::format("\\x%02x", static_cast<unsigned>(code))
                         : utils::format("\\u%04x", static_cast<unsigned>(code));
  }
}

}  // namespace

std::size_t utf8Length(std::string_view text, std::size_t at) {
  char32_t code = 0;
  return utils::decodeUtf8(text.substr(at), code);
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = utils::decodeUtf8(text, code);
    if (length == 0) {
      out += utils::format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[0])));
    } else {
      out += steers(code) ? escaped(code) : std::string(text.substr(0, length));
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return out;
}

std::string json(const variant::Variant& value, int indent) {
  const std::string text = value.toJson(indent);
  std::string out;
  out.reserve(text.size());
  for (std::string_view rest = text; !rest.empty();) {
    char32_t code = 0;
    const std::size_t length = std::max<std::size_t>(utils::decodeUtf8(rest, code), 1);
    // toJson() escapes everything below 0x20 except the line breaks of the indentation.
    out += code >= 0x20 && steers(code) ? utils::format("\\u%04x", static_cast<unsigned>(code))
                                        : std::string(rest.substr(0, length));
    rest.remove_prefix(length);
  }
  return out;
}

std::string cell(const variant::Variant& value) {
  if (value.isEmpty()) {
    return "-";
  }
  return value.is(variant::VariantClass::String) ? printable(value.toText()) : json(value);
}

std::string humanBytes(double bytes) {
  constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  std::size_t unit = 0;
  while (bytes >= 1023.95 && unit + 1 < kUnits.size()) {
    bytes /= 1024;
    ++unit;
  }
  return unit == 0 || bytes >= 99.95 ? utils::format("%.0f %s", bytes, kUnits[unit])
                                     : utils::format("%.1f %s", bytes, kUnits[unit]);
}

std::string humanDuration(std::uint64_t seconds) {
  const std::uint64_t days = seconds / 86400;
  const auto part = [seconds](std::uint64_t unit, std::uint64_t modulus) {
    return static_cast<unsigned>(seconds / unit % modulus);
  };
  const std::string clock =
      utils::format("%02u:%02u:%02u", part(3600, 24), part(60, 60), part(1, 60));
  return days == 0 ? clock : std::to_string(days) + " d " + clock;
}

std::string_view clip(std::string_view text, std::size_t columns) {
  std::size_t at = 0;
  for (; columns > 0 && at < text.size(); --columns) {
    at += std::max<std::size_t>(utf8Length(text, at), 1);
  }
  return text.substr(0, at);
}

bool parseDuration(std::string_view text, std::uint32_t& milliseconds) {
  constexpr double kMax = 2147483e3;
  constexpr std::array<std::pair<std::string_view, double>, 5> kUnits{
      {{"", 1000}, {"ms", 1}, {"s", 1000}, {"min", 60e3}, {"h", 3600e3}}};
  const std::size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  const std::string number(text.substr(0, digits));
  const auto* const unit =
      std::ranges::find(kUnits, text.substr(digits), &std::pair<std::string_view, double>::first);
  char* end = nullptr;
  const double count = std::strtod(number.c_str(), &end);
  if (unit == kUnits.end() || end == number.c_str() || end != number.c_str() + number.size()) {
    return false;
  }
  const double rounded = std::round(count * unit->second);
  if (rounded > kMax || (rounded < 1 && count > 0)) {
    return false;
  }
  milliseconds = static_cast<std::uint32_t>(rounded);
  return true;
}

std::string humanSeconds(std::uint32_t milliseconds) {
  const std::string text = variant::Variant(milliseconds / 1000.0).toJson();
  return text.ends_with(".0") ? text.substr(0, text.size() - 2) + " s" : text + " s";
}

namespace {

std::size_t columns(const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < text.size(); ++count) {
    at += std::max<std::size_t>(utf8Length(text, at), 1);
  }
  return count;
}

void flattenInto(const variant::Variant& value, const std::string& path, std::vector<Row>& rows) {
  for (const auto& [key, element] : value.elements()) {
    flattenInto(element, (path.empty() ? "" : path + ".") + printable(key), rows);
  }
  for (std::size_t i = 0; i < value.items().size(); ++i) {
    flattenInto(value.items()[i], path + "[" + std::to_string(i) + "]", rows);
  }
  if (!value.isContainer()) {
    rows.push_back({path, cell(value)});
  }
}

// The indentation of continuation lines.
std::size_t hang(std::string_view line, std::size_t columns) {
  const std::size_t start = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t gap = line.find("  ", start);
  const std::size_t column = gap != line.npos ? line.find_first_not_of(' ', gap) : line.npos;
  return column != line.npos && column <= columns / 2 ? column : start;
}

// Moves the second column below the first if there is too little room beside it.
std::string unfold(std::string& line, std::size_t columns) {
  const std::size_t start = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t gap = line.find("  ", start);
  const std::size_t column = gap != line.npos ? line.find_first_not_of(' ', gap) : line.npos;
  if (start == 0 || column == line.npos || column <= columns / 2 || line.size() <= columns) {
    return "";
  }
  std::string first = line.substr(0, gap) + "\n";
  line.replace(0, column, start + 4, ' ');
  return first;
}

std::string wrapLine(std::string line, std::size_t columns) {
  std::string out = unfold(line, columns);
  const std::string indent(hang(line, columns), ' ');
  while (line.size() > columns) {
    std::size_t end = line.rfind(' ', columns);
    if (end == line.npos || end < indent.size()) {
      end = line.find(' ', columns);
    }
    if (end == line.npos) {
      break;
    }
    out.append(line, 0, end).append("\n");
    const std::size_t next = line.find_first_not_of(' ', end);
    line.replace(0, std::min(next, line.size()), next == line.npos ? "" : indent);
  }
  return out + line;
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

std::string grid(const std::vector<Cells>& lines) {
  std::vector<std::size_t> widths;
  for (const Cells& line : lines) {
    widths.resize(std::max(widths.size(), line.size()));
    for (std::size_t i = 0; i + 1 < line.size(); ++i) {
      widths[i] = std::max(widths[i], columns(line[i]));
    }
  }
  std::string out;
  for (const Cells& line : lines) {
    for (std::size_t i = 0; i + 1 < line.size(); ++i) {
      out += line[i] + std::string(widths[i] - columns(line[i]) + 2, ' ');
    }
    out += (line.empty() ? "" : line.back()) + "\n";
  }
  return out;
}

std::vector<Row> flatten(const variant::Variant& value) {
  std::vector<Row> rows;
  flattenInto(value, "", rows);
  return rows;
}

std::string wrap(std::string_view text, std::size_t columns) {
  std::string out;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    out += wrapLine(std::string(text.substr(0, end)), columns);
    out += end < text.size() ? "\n" : "";
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return out;
}

}  // namespace kova::ctl
