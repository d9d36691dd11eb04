#include "BusText.h"

#include "kova/utils/Utf8.h"

namespace kova::ipc {

bool isBusCharacter(char32_t code) {
  const bool noncharacter = (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFEU) == 0xFFFE;
  return code != 0 && !noncharacter;
}

bool isBusText(std::string_view text) {
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = utils::decodeUtf8(text, code);
    if (length == 0 || !isBusCharacter(code)) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace kova::ipc
