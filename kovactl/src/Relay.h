#pragma once

#include "ExitStatus.h"

namespace kova::ctl {

/// Copies `in` to `bus` and `bus` to `out` until the bus closes, or until `in` has ended and the
/// bus has closed or stays silent for five seconds. What was read is delivered first. Nothing is
/// interpreted, and no more than 64 KiB are held for each way: who does not read is not read from.
///
/// Makes all three descriptors non-blocking. `in` and `out` may be the same socket.
/// @return Ok; Local when waiting fails; stopStatus() on a stop signal
ExitStatus relay(int in, int out, int bus);

}  // namespace kova::ctl
