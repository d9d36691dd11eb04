#include "BusText.h"

#include <algorithm>

#include "kova/utils/Utf8.h"

namespace kova::ipc {
namespace {

bool isAscii(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte > 0 && byte < 0x80;
}

}  // namespace

bool isBusCharacter(char32_t code) {
  const bool noncharacter = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFE;
  return code != 0 && !noncharacter;
}

bool isBusText(std::string_view text) {
  for (;;) {
    // Up to a megabyte, mostly ASCII: decode only what is not.
    text.remove_prefix(std::find_if_not(text.begin(), text.end(), isAscii) - text.begin());
    if (text.empty()) {
      return true;
    }
    char32_t code = 0;
    const std::size_t length = utils::decodeUtf8(text, code);
    if (length == 0 || !isBusCharacter(code)) {
      return false;
    }
    text.remove_prefix(length);
  }
}

}  // namespace kova::ipc
