#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Objects.h"
#include "TransferRecord.h"

namespace kova::ctl {

/// Follows the published record of one transfer for the lifetime of the control server that
/// publishes it.
class TransferFollower {
 public:
  explicit TransferFollower(const Options& options) : objects_(options) {}
  TransferFollower(const TransferFollower&) = delete;
  TransferFollower& operator=(const TransferFollower&) = delete;

  /// Why the transfer can no longer be followed.
  enum class Loss { None, Server, Record, Connection };

  /// Joins the bus. Failures are reported as by Client.
  ExitStatus open() { return objects_.open(); }
  /// Looks for the transfer of an accepted request. If the camera publishes none, found() stays
  /// false.
  /// @return Ok, or stopStatus() on a stop signal
  ExitStatus find(std::uint64_t requestId);
  bool found() const { return !record_.number.empty(); }

  /// Handles signals; reads the transfer after a change and at every heartbeat. Never blocks.
  void Service();
  /// The state as read or signalled last.
  const TransferRecord& record() const { return record_; }
  /// Whether the control server may be waiting for a tool that checks or flashes. It signals the
  /// phase and starts the tool at once, and then answers no reads until the tool ends; a signal
  /// that no read has confirmed therefore counts, too.
  bool mayBeAtTools() const { return record_.phase == "finalising" || unconfirmed_; }
  /// Whether the control server has ended, has dropped the record, or cannot be reached.
  bool isLost() const { return loss_ != Loss::None; }
  Loss loss() const { return loss_; }

  /// Has the camera cancel the transfer.
  ExitStatus cancel();

 private:
  using Clock = std::chrono::steady_clock;

  void follow();
  void onSignal(const ipc::BusObjects::Signal& signal);
  void ask();
  void take(const Objects::Answer& answer);

  Objects objects_;
  TransferRecord record_;
  bool changed_ = false;      ///< signalled since the last read was started
  bool unconfirmed_ = false;  ///< signalled, and no read since has completed
  bool asking_ = false;
  Loss loss_ = Loss::None;
  Clock::time_point asked_{};
};

/// Has the camera cancel a transfer; reports a refusal.
ExitStatus cancelTransfer(Objects& objects, const std::string& number);

}  // namespace kova::ctl
