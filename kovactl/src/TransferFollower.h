#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Objects.h"
#include "TransferRecord.h"

namespace kova::ctl {

/// Follows one transfer as the camera publishes it.
class TransferFollower {
 public:
  explicit TransferFollower(const Options& options) : objects_(options) {}
  TransferFollower(const TransferFollower&) = delete;
  TransferFollower& operator=(const TransferFollower&) = delete;

  /// Looks for the transfer of a request that the camera has accepted. Without one, because the
  /// camera publishes none, Found() stays false.
  /// @return Ok, or stopStatus() on a stop signal
  ExitStatus Find(std::uint64_t requestId);
  bool Found() const { return !record_.number.empty(); }

  /// Reads the transfer when it has changed, and once in a while. Never waits.
  void Service();
  /// The state read last.
  const TransferRecord& Record() const { return record_; }
  /// Whether the control server has ended or has forgotten the transfer.
  bool Gone() const { return gone_; }

  /// Has the camera cancel the transfer.
  ExitStatus Cancel();

 private:
  using Clock = std::chrono::steady_clock;

  void Follow();
  void Ask();
  void Take(const Objects::Answer& answer);

  Objects objects_;
  TransferRecord record_;
  bool changed_ = false;
  bool asking_ = false;
  bool gone_ = false;
  Clock::time_point asked_{};
};

/// Has the camera cancel a transfer; reports why it does not.
ExitStatus cancelTransfer(Objects& objects, const std::string& number, bool patient = false);

}  // namespace kova::ctl
