#pragma once

#include <string>

namespace kova::utils {

/// The version of the firmware that runs, as its maker writes it: the first line of
/// /run/firmware_version, which the board's start script fills in. A board that keeps it elsewhere
/// replaces this. At most 255 bytes; "" if the board does not tell.
std::string firmwareVersion();

/// The kernel's id of this boot (random(4), "boot_id"); "" if it cannot be read.
std::string bootId();

}  // namespace kova::utils
