#pragma once

#include <algorithm>
#include <charconv>
#include <string_view>
#include <type_traits>

namespace kova::utils {

/// Removes the first line from `rest` and returns it without its line break.
inline std::string_view nextLine(std::string_view& rest) {
  const std::size_t end = rest.find('\n');
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return line;
}

/// Removes the first word, delimited by spaces and tabs, from `rest` and returns it; "" if none is
/// left.
inline std::string_view nextWord(std::string_view& rest) {
  constexpr std::string_view kBlanks = " \t";
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));
  const std::size_t end = std::min(rest.find_first_of(kBlanks), rest.size());
  const std::string_view word = rest.substr(0, end);
  rest.remove_prefix(end);
  return word;
}

/// Parses all of `word` as a number, regardless of the locale. False, with `value` unchanged, if it
/// is not a number or out of range.
/// @param base base of an integer; floating-point numbers are always decimal
template <typename Number>
bool parseNumber(std::string_view word, Number& value, [[maybe_unused]] int base = 10) {
  const char* end = word.data() + word.size();
  Number parsed{};
  std::from_chars_result result{};
  if constexpr (std::is_floating_point_v<Number>) {
    result = std::from_chars(word.data(), end, parsed);
  } else {
    result = std::from_chars(word.data(), end, parsed, base);
  }
  if (result.ec != std::errc() || result.ptr != end) return false;
  value = parsed;
  return true;
}

}  // namespace kova::utils
