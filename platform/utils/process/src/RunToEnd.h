#pragma once

#include <string>
#include <vector>

namespace kova::utils {

/// sysExecArguments() with a given limit; see there and Watchdog.h.
int runToEnd(const std::string& program, const std::vector<std::string>& arguments,
             unsigned limitMs, unsigned graceMs);

}  // namespace kova::utils
