#pragma once

#include <string>

namespace kova::ctlserver {

/// The MD5 digest (RFC 1321) of a file as 32 lower-case hexadecimal digits. Reads in small chunks,
/// so memory use does not grow with the file.
/// @param out receives the digest; unchanged on failure, which is logged
bool md5sum(const std::string& path, std::string& out);

}  // namespace kova::ctlserver
