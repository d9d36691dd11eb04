#pragma once

#include <cstdint>

#include "kova/ipc/Objects.h"

namespace kova::ctlserver {

/// Batches writes of the configuration to flash and performs the factory reset.
///
/// The camera keeps its configuration under /etc/ in RAM; "/bin/cfgmtd" writes it to flash or
/// erases it there. A save runs five seconds after the last request for one, a reset five seconds
/// after its request. A write or erase that fails stays due and is repeated at every service().
class Persistence {
 public:
  Persistence() = default;
  /// Performs a pending save, then a pending reset, at once.
  ~Persistence();
  Persistence(const Persistence&) = delete;
  Persistence& operator=(const Persistence&) = delete;

  /// Schedules a save; each call postpones it.
  void enqueue();
  /// Schedules a factory reset.
  void enqueueReset();
  /// Drops a scheduled save. A scheduled reset stays.
  void cancel();

  /// Writes the configuration to flash if a save is scheduled or `force` is set. Returns false only
  /// if the write failed.
  bool persist(bool force);
  /// If a reset is scheduled, erases the saved configuration and reboots. Returns false only if the
  /// erase failed.
  bool reset();
  /// Runs a due save, or else a due reset.
  /// @return the result of persist() or reset(), true if neither was due
  bool service();

  bool savePending() const { return saveStamp_ != 0; }
  bool resetPending() const { return resetStamp_ != 0; }
  /// When the last write to flash ended, and how: "OK" or "FAILED".
  const ipc::Moment& lastSave() const { return lastSave_; }

 private:
  bool save();

  // Milliseconds of utils::nowMs(); 0: nothing is scheduled.
  std::uint64_t saveStamp_ = 0;
  std::uint64_t resetStamp_ = 0;
  ipc::Moment lastSave_;
};

}  // namespace kova::ctlserver
