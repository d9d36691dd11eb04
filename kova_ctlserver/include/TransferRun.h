#pragma once

#include <cstdint>
#include <string>

namespace kova::ctlserver {

class BaseTransferTask;

/// A response with this status or a higher one refuses the request.
inline constexpr int kFirstHttpError = 400;

/// One run of a task under one URI, with what its record will be told. A task that a later request
/// takes over has several runs at once.
struct TransferRun {
  BaseTransferTask* task = nullptr;
  std::uint64_t record = 0;       ///< its number
  std::uint64_t tookOver = 0;     ///< the number of an earlier run of the task that had not ended
  std::uint64_t takenOverBy = 0;  ///< the number of the last request that armed the task again
  bool registered = false;        ///< the engine has had its transfer
  bool completed = false;         ///< its transfer has ended with TRANSFER_OK
  std::uint64_t transferred = 0;  ///< bytes sent or received so far
  int httpStatus = 0;             ///< of the last response; 0: none arrived
  std::string cause = {};         ///< why the transfer failed, as a clause; "" until it is known

  /// The clause for a size beyond the task's limit.
  std::string tooLarge(const char* what, std::uint64_t size) const;
  /// The clause for a deadline that has passed.
  std::string tooLate() const;

  /// How the run ended once its task was finalised.
  struct End {
    std::string outcome;
    std::string reason;
  };
  /// Whatever the task said, or else what the server answered: an upload that the server refuses
  /// has failed, though no event says so, and so has one that another run of the task cut.
  End success() const;

  /// The reason of the run's end: `clause`, after what explains it.
  std::string explain(const std::string& clause) const;
};

/// Why a request to a URI is refused that another transfer uses.
std::string uriInUse(std::uint64_t record);

}  // namespace kova::ctlserver
