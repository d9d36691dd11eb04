#pragma once

#include <string>

namespace kova::utils {

/// Reads a file of procfs or sysfs, whose size is not known beforehand, from its start; repeated
/// reads of one descriptor give fresh content each time (proc(5)). 0, or an errno value.
int readFromStart(int fd, std::string& text);

/// The same for a path.
int readSmallFile(const std::string& path, std::string& text);

}  // namespace kova::utils
