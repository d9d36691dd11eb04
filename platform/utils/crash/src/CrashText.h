#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace kova::utils {

/// A bounded text for signal handlers: truncates, allocates no memory and ignores the locale.
template <std::size_t kSize>
class CrashText {
 public:
  CrashText& append(std::string_view more) {
    const std::size_t room = std::min(more.size(), kSize - 1 - length_);
    std::copy_n(more.begin(), room, text_.begin() + static_cast<std::ptrdiff_t>(length_));
    length_ += room;
    text_[length_] = '\0';
    return *this;
  }
  CrashText& appendNumber(std::uint64_t number) { return appendDigits(number, 10); }
  CrashText& appendHex(std::uint64_t number) { return appendDigits(number, 16); }
  /// Two digits.
  CrashText& appendByte(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return (value < 0x10 ? append("0") : *this).appendHex(value);
  }

  const char* text() const { return text_.data(); }
  std::string_view view() const { return {text_.data(), length_}; }

 private:
  CrashText& appendDigits(std::uint64_t number, unsigned base) {
    std::array<char, 20> digits;
    std::size_t first = digits.size();
    do {
      digits[--first] = "0123456789abcdef"[number % base];
      number /= base;
    } while (number != 0);
    return append({digits.data() + first, digits.size() - first});
  }

  std::array<char, kSize> text_{};
  std::size_t length_ = 0;
};

}  // namespace kova::utils
