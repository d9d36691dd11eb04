#pragma once

#include <cstdint>
#include <string>

namespace kova::ctlserver {

class BaseTransferTask;

/// A response with this status or a higher one refuses the request.
inline constexpr int kFirstHttpError = 400;

/// One run of a task under one URI, with the facts for its record. A task that a later request
/// takes over has several runs at once.
struct TransferRun {
  BaseTransferTask* task = nullptr;
  std::uint64_t record = 0;       ///< number of its record
  std::uint64_t tookOver = 0;     ///< record of an earlier run of the task that had not ended
  std::uint64_t takenOverBy = 0;  ///< record of the last request that armed the task again
  bool registered = false;        ///< its transfer was registered with the engine
  bool completed = false;         ///< its transfer has ended with TRANSFER_OK
  std::uint64_t transferred = 0;  ///< bytes sent or received so far
  int httpStatus = 0;             ///< of the last response; 0: none arrived
  std::string cause = {};         ///< why the transfer failed, as a clause; "" until it is known

  /// The clause for a size beyond the task's limit.
  std::string tooLarge(const char* what, std::uint64_t size) const;
  /// The clause for a deadline that has passed.
  std::string tooLate() const;

  /// Outcome and reason, as in TransferRecord.
  struct End {
    std::string outcome;
    std::string reason;
  };
  /// The end of a run whose task is done: the task's own conclusion, or else derived from the
  /// transfer. An upload that the server refuses has failed although no event reports it, and so
  /// has one that another run of the task cut short.
  End success() const;

  /// The reason for the record: `clause`, preceded by takeovers and the HTTP error that explain it.
  std::string explain(const std::string& clause) const;
};

/// The reason for refusing a request whose URI is in use by transfer `record`.
std::string uriInUse(std::uint64_t record);

}  // namespace kova::ctlserver
