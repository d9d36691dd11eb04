#pragma once

#include <string>

namespace kova::ctlserver {

/// Computes the MD5 digest (RFC 1321) of a file as 32 lower-case hexadecimal digits. Memory use
/// does not grow with the file.
/// @param out receives the digest; unchanged on failure, which is logged
bool md5sum(const std::string& path, std::string& out);

}  // namespace kova::ctlserver
