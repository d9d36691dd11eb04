#pragma once

#include <cstddef>
#include <string>

#include "BusClient.h"
#include "Random.h"

namespace kova::attack {

struct RandomRequest {
  std::string description;
  system_test::Append body;
};

/// A request that the bus delivers: any function except those that end the camera, with fields of
/// the catalogue's type or another, and some unknown ones; or a body that is not a map.
RandomRequest randomRequest(Random& random);

struct RandomBody {
  std::string description;
  std::string signature;
  std::string body;
  std::size_t claimedSize;  ///< what the header says
};

/// Bytes that mostly do not match their signature.
RandomBody randomBody(Random& random);

}  // namespace kova::attack
