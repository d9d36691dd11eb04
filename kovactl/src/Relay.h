#pragma once

#include "ExitStatus.h"

namespace kova::ctl {

/// Copies `in` to `bus` and `bus` to `out` until the bus closes, or until one side has ended and
/// nothing moves for five seconds. Delivers what it has read before it returns. Interprets nothing
/// and buffers at most 64 KiB per direction: a direction is read only when its buffer is empty, so
/// back pressure reaches the sender.
///
/// Makes all three descriptors non-blocking. `in` and `out` may be the same socket.
/// @return Ok; Local when waiting fails; stopStatus() on a stop signal
ExitStatus relay(int in, int out, int bus);

}  // namespace kova::ctl
