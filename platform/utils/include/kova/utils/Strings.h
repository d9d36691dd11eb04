#pragma once

#include <string>

namespace kova::utils {

/// printf(3) into a string of any length.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

/// Strips white space (as isspace(3) in the C locale) from both ends, in place.
void trim(std::string& text);

/// Whether `text` begins with `prefix`; always true for "".
bool startsWith(const std::string& text, const std::string& prefix);

}  // namespace kova::utils
