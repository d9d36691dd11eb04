#pragma once

#include <string>

namespace kova::ctl {

/// The MD5 digest (RFC 1321) of a file as 32 lower-case hexadecimal digits.
/// @return false, with `errno` set, when the file cannot be read
bool md5OfFile(const std::string& path, std::string& digest);

}  // namespace kova::ctl
