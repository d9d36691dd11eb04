#include "Utf8.h"

#include <cstddef>
#include <cstdint>

namespace kova::ipc {
namespace {

struct Sequence {
  std::size_t length;  ///< 0 for a byte that starts none
  std::uint32_t bits;  ///< payload of the first byte
  std::uint32_t min;   ///< smallest code point that needs this length
};

Sequence sequenceOf(unsigned char first) {
  if (first < 0x80) {
    return {1, first, 0};
  }
  if ((first & 0xE0U) == 0xC0) {
    return {2, first & 0x1FU, 0x80};
  }
  if ((first & 0xF0U) == 0xE0) {
    return {3, first & 0x0FU, 0x800};
  }
  if ((first & 0xF8U) == 0xF0) {
    return {4, first & 0x07U, 0x10000};
  }
  return {0, 0, 0};
}

bool isBusCharacter(std::uint32_t point) {
  const bool surrogate = (point & 0xFFFFF800U) == 0xD800;
  const bool noncharacter = (point >= 0xFDD0 && point <= 0xFDEF) || (point & 0xFFFEU) == 0xFFFE;
  return point != 0 && point <= 0x10FFFF && !surrogate && !noncharacter;
}

}  // namespace

bool isBusText(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const Sequence sequence = sequenceOf(static_cast<unsigned char>(text[i]));
    if (sequence.length == 0 || sequence.length > text.size() - i) {
      return false;
    }
    std::uint32_t point = sequence.bits;
    for (std::size_t k = 1; k < sequence.length; ++k) {
      const auto byte = static_cast<unsigned char>(text[i + k]);
      if ((byte & 0xC0U) != 0x80) {
        return false;
      }
      point = point << 6U | (byte & 0x3FU);
    }
    if (point < sequence.min || !isBusCharacter(point)) {
      return false;
    }
    i += sequence.length;
  }
  return true;
}

}  // namespace kova::ipc
