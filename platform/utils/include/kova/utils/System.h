#pragma once

#include <string>

namespace kova::utils {

/// The version of the running firmware, in the vendor's notation: the first line of
/// /run/firmware_version, which the board's start script writes. A board that keeps it elsewhere
/// replaces this function. At most 255 bytes; "" if unknown.
std::string firmwareVersion();

/// The kernel's id of this boot (random(4), "boot_id"); "" if it cannot be read.
std::string bootId();

}  // namespace kova::utils
