#include "kova/utils/Utf8.h"

namespace kova::utils {
namespace {

struct Lead {
  std::size_t length;  ///< of the sequence; 0 for a byte that cannot start one
  char32_t bits;       ///< payload of the first byte
  char32_t min;        ///< smallest code point of this length
};

Lead leadOf(unsigned char first) {
  if (first < 0x80) return {1, first, 0};
  if ((first & 0xE0U) == 0xC0) return {2, first & 0x1FU, 0x80};
  if ((first & 0xF0U) == 0xE0) return {3, first & 0x0FU, 0x800};
  if ((first & 0xF8U) == 0xF0) return {4, first & 0x07U, 0x10000};
  return {};
}

bool isCodePoint(char32_t code) {
  const bool surrogate = (code & 0xFFFFF800U) == 0xD800;
  return code <= 0x10FFFF && !surrogate;
}

}  // namespace

std::size_t decodeUtf8(std::string_view text, char32_t& code) {
  if (text.empty()) return 0;
  const Lead lead = leadOf(static_cast<unsigned char>(text[0]));
  if (lead.length == 0 || lead.length > text.size()) return 0;
  code = lead.bits;
  for (const char next : text.substr(1, lead.length - 1)) {
    const auto byte = static_cast<unsigned char>(next);
    if ((byte & 0xC0U) != 0x80) return 0;
    code = code << 6U | (byte & 0x3FU);
  }
  return code >= lead.min && isCodePoint(code) ? lead.length : 0;
}

}  // namespace kova::utils
