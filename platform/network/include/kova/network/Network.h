#pragma once

#include <string>

namespace kova::network {

/// Name of the interface of the default route with the lowest metric (/proc/net/route, then
/// /proc/net/ipv6_route); "" if there is none.
std::string guessDefaultInterface();

}  // namespace kova::network
