#pragma once

#include <string>
#include <vector>

namespace kova::ctl {

/// The names of the services that are installed on this machine.
std::vector<std::string> installedServices();

}  // namespace kova::ctl
