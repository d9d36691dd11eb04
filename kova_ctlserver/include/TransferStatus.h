#pragma once

#include <cstdint>

namespace kova::ctlserver {

/// How a transfer ended.
enum TransferStatus : std::int32_t {
  TRANSFER_OK = 0,      ///< no transport error, whatever the HTTP status code
  TRANSFER_FAILED = 1,  ///< any other transport error, or registration failed
  /// A write failed, or libcurl reports a read error (not a failed read of an upload, kept: 37).
  DISK_IO_FAILED = 2,
  TRANSFER_CANCELLED = 3,  ///< removed by a cancel; never logged as a failure
  // kept: 28
  TRANSFER_BUSY = 4,      ///< a task of that kind is running; the engine never sets it
  TRANSFER_TIMEOUT = 5,   ///< the time-out of libcurl or the deadline of the task passed
  TRANSFER_TOOLARGE = 6,  ///< the announced or received size exceeds the task's maximum
};

}  // namespace kova::ctlserver
