#include "Text.h"

#include <array>
#include <cmath>
#include <cstdlib>

#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

bool continues(std::string_view text, std::size_t at, unsigned char low, unsigned char high) {
  return at < text.size() && static_cast<unsigned char>(text[at]) >= low &&
         static_cast<unsigned char>(text[at]) <= high;
}

char32_t decode(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) {
    return first;
  }
  char32_t code = first & (0x7FU >> sequence.size());
  for (const char byte : sequence.substr(1)) {
    code = (code << 6U) | (static_cast<unsigned char>(byte) & 0x3FU);
  }
  return code;
}

// C0, DEL and C1 steer a terminal; the others reorder or hide text (Unicode, "Bidi_Control" and
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
  const auto first = static_cast<unsigned char>(text[at]);
  if (first < 0x80) {
    return 1;
  }
  if (first >= 0xC2 && first <= 0xDF) {
    return continues(text, at + 1, 0x80, 0xBF) ? 2 : 0;
  }
  if (first >= 0xE0 && first <= 0xEF) {
    const bool second =
        continues(text, at + 1, first == 0xE0 ? 0xA0 : 0x80, first == 0xED ? 0x9F : 0xBF);
    return second && continues(text, at + 2, 0x80, 0xBF) ? 3 : 0;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    const bool second =
        continues(text, at + 1, first == 0xF0 ? 0x90 : 0x80, first == 0xF4 ? 0x8F : 0xBF);
    return second && continues(text, at + 2, 0x80, 0xBF) && continues(text, at + 3, 0x80, 0xBF) ? 4
                                                                                                : 0;
  }
  return 0;
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8Length(text, at);
    if (length == 0) {
      out += utils::format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[at])));
      ++at;
      continue;
    }
    const std::string_view sequence = text.substr(at, length);
    const char32_t code = decode(sequence);
    out += steers(code) ? escaped(code) : std::string(sequence);
    at += length;
  }
  return out;
}

std::string json(const variant::Variant& value, int indent) {
  const std::string text = value.ToJSON(indent);
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = std::max<std::size_t>(utf8Length(text, at), 1);
    const std::string_view sequence = std::string_view(text).substr(at, length);
    const char32_t code = decode(sequence);
    // The serialiser has escaped what is below 0x20; the line breaks of its indentation stay.
    out += code >= 0x20 && steers(code) ? utils::format("\\u%04x", static_cast<unsigned>(code))
                                        : std::string(sequence);
    at += length;
  }
  return out;
}

std::string cell(const variant::Variant& value) {
  if (value.IsEmpty()) {
    return "-";
  }
  return value.Is(variant::VariantClass::String) ? printable(value.ToText()) : json(value);
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

bool parseSeconds(const std::string& text, std::uint32_t& milliseconds) {
  constexpr double kMost = 4294967;
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) {
    return false;
  }
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  const double rounded = std::round(seconds * 1000);
  if (end != text.c_str() + text.size() || rounded < 1 || seconds > kMost) {
    return false;
  }
  milliseconds = static_cast<std::uint32_t>(rounded);
  return true;
}

}  // namespace kova::ctl
