#pragma once

#include <memory>

#include "Attack.h"

namespace kova::attack {

/// Random requests and malformed messages over the bus.
std::unique_ptr<Campaign> makeRequests(Attack& attack);
/// Servers that violate HTTP and TLS, and servers without a trusted certificate.
std::unique_ptr<Campaign> makeServers(Attack& attack);
/// Links, pipes, devices and foreign files where the camera reads and writes.
std::unique_ptr<Campaign> makeFiles(Attack& attack);
/// Device tools that hang, print forever, fork, and exit abnormally.
std::unique_ptr<Campaign> makeTools(Attack& attack);
/// Damaged pictures and sounds with correct digests.
std::unique_ptr<Campaign> makePictures(Attack& attack);

}  // namespace kova::attack
