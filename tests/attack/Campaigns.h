#pragma once

#include <memory>

#include "Attack.h"

namespace kova::attack {

/// Random requests, and what is no request at all, over the bus.
std::unique_ptr<Campaign> makeRequests(Attack& attack);
/// Servers that break HTTP and TLS, and such as have no business here.
std::unique_ptr<Campaign> makeServers(Attack& attack);
/// Links, pipes, devices and foreign files where the camera reads and writes.
std::unique_ptr<Campaign> makeFiles(Attack& attack);
/// Device tools that hang, print for ever, fork, and end oddly.
std::unique_ptr<Campaign> makeTools(Attack& attack);
/// Damaged pictures and sounds under their right digests.
std::unique_ptr<Campaign> makePictures(Attack& attack);

}  // namespace kova::attack
