#include "kova/utils/Strings.h"

#include <cstdarg>
#include <cstdio>

namespace kova::utils {

std::string format(const char* pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, pattern, measured);
  va_end(measured);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, pattern, arguments);
  }
  va_end(arguments);
  return text;
}

void trim(std::string& text) {
  constexpr char kSpace[] = " \t\n\v\f\r";
  text.erase(text.find_last_not_of(kSpace) + 1);
  text.erase(0, text.find_first_not_of(kSpace));
}

std::string hexadecimal(std::span<const unsigned char> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text.push_back(kDigits[byte >> 4U]);
    text.push_back(kDigits[byte & 0xFU]);
  }
  return text;
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.starts_with(prefix);
}

}  // namespace kova::utils
