#pragma once

#include <span>
#include <string>

namespace kova::utils {

/// printf(3) into a string of any length.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

/// Strips white space (as isspace(3) in the C locale) from both ends, in place.
void trim(std::string& text);

/// The bytes in hexadecimal: two lower-case digits each.
std::string hexadecimal(std::span<const unsigned char> bytes);

/// Whether `text` begins with `prefix`; always true for "".
bool startsWith(const std::string& text, const std::string& prefix);

}  // namespace kova::utils
