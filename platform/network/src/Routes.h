#pragma once

#include <string>
#include <string_view>

namespace kova::network {

/// Interface of the default route with the lowest metric in the content of /proc/net/route, else of
/// /proc/net/ipv6_route; "" if there is none.
std::string defaultInterface(std::string_view ipv4Routes, std::string_view ipv6Routes);

}  // namespace kova::network
