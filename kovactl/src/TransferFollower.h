#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Objects.h"
#include "TransferRecord.h"

namespace kova::ctl {

/// Follows one transfer as the camera publishes it, until the control server that publishes it
/// ends.
class TransferFollower {
 public:
  explicit TransferFollower(const Options& options) : objects_(options) {}
  TransferFollower(const TransferFollower&) = delete;
  TransferFollower& operator=(const TransferFollower&) = delete;

  /// Why there is nothing left to follow.
  enum class Loss { None, Server, Record, Connection };

  /// Joins the bus. Failures are reported as by Client.
  ExitStatus open() { return objects_.open(); }
  /// Looks for the transfer of a request that the camera has accepted. Without one, because the
  /// camera publishes none, found() stays false.
  /// @return Ok, or stopStatus() on a stop signal
  ExitStatus find(std::uint64_t requestId);
  bool found() const { return !record_.number.empty(); }

  /// Takes signals, and reads the transfer when it has changed, and once in a while. Never waits.
  void Service();
  /// The state as read or signalled last.
  const TransferRecord& record() const { return record_; }
  /// Whether the control server may be waiting for a tool that checks or flashes. It enters that
  /// phase and starts the tool at once, so that it signals the phase and answers no more.
  bool mayBeAtTools() const { return record_.phase == "finalising" || behind_; }
  /// Whether the control server has ended or has forgotten the transfer, or cannot be reached.
  bool gone() const { return loss_ != Loss::None; }
  Loss lost() const { return loss_; }

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
  bool changed_ = false;  ///< signalled since the last question
  bool behind_ = false;   ///< signalled and not read since
  bool asking_ = false;
  Loss loss_ = Loss::None;
  Clock::time_point asked_{};
};

/// Has the camera cancel a transfer; reports why it does not.
ExitStatus cancelTransfer(Objects& objects, const std::string& number);

}  // namespace kova::ctl
