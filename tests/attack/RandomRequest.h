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

/// A request that the bus lets through: any function but those that end the camera, its fields as
/// the catalogue has them or of any other type, some that nobody knows; or a body that is no map.
RandomRequest randomRequest(Random& random);

struct RandomBody {
  std::string description;
  std::string signature;
  std::string body;
  std::size_t claimedSize;  ///< what the header says
};

/// Bytes that mostly do not fit their signature.
RandomBody randomBody(Random& random);

}  // namespace kova::attack
