#pragma once

#include <cstddef>
#include <string_view>

namespace kova::utils {

/// Decodes the first character of `text` (RFC 3629: shortest form only, no surrogates).
/// @param code receives the code point; unspecified when 0 is returned
/// @return number of bytes it takes; 0 if `text` is empty or does not start with a valid sequence
std::size_t decodeUtf8(std::string_view text, char32_t& code);

}  // namespace kova::utils
