#pragma once

#include <cstdint>

namespace kova::ctlserver {

/// How a transfer ended.
enum TransferStatus : std::int32_t {
  TRANSFER_OK = 0,         ///< without an error of the transport, whatever the HTTP status code
  TRANSFER_FAILED = 1,     ///< any other transport failure, or it could not be registered
  DISK_IO_FAILED = 2,      ///< the local side refused bytes or could not give them
  TRANSFER_CANCELLED = 3,  ///< taken off the engine by a cancel; never reported as a failure
  TRANSFER_BUSY = 4,       ///< a task of that kind is running; not produced by the engine
  TRANSFER_TIMEOUT = 5,    ///< the transport's time-out or the task's own deadline has passed
  TRANSFER_TOOLARGE = 6,   ///< the announced or received size exceeds the task's maximum
};

}  // namespace kova::ctlserver
