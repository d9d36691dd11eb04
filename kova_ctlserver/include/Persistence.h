#pragma once

#include <cstdint>

namespace kova::ctlserver {

/// Batches the writes of the configuration to flash, and carries out the factory reset.
///
/// The camera keeps its configuration under /etc/ in RAM; "/bin/cfgmtd" writes it to flash or
/// erases it there. A save that was asked for runs once none has been asked for during the last
/// five seconds; a reset runs five seconds after it was asked for. A failed write or erase stays
/// due and is tried again at every service().
class Persistence {
 public:
  Persistence() = default;
  /// Carries out what is pending at once: the save, then the reset.
  ~Persistence();
  Persistence(const Persistence&) = delete;
  Persistence& operator=(const Persistence&) = delete;

  /// Schedules a save; a later call pushes it back.
  void enqueue();
  /// Schedules a factory reset.
  void enqueueReset();
  /// Drops a scheduled save. A scheduled reset stays.
  void cancel();

  /// Writes the configuration to flash now if a save is scheduled or `force` is set. False only
  /// when the write failed.
  bool persist(bool force);
  /// Erases the saved configuration and reboots, if a reset is scheduled. False only when the erase
  /// failed.
  bool reset();
  /// Runs what is due; a due save goes before a due reset, which then waits for the next call.
  /// @return the result of what was run, true if nothing was
  bool service();

 private:
  // Milliseconds of utils::nowMs(); 0: nothing is scheduled.
  std::uint64_t saveStamp_ = 0;
  std::uint64_t resetStamp_ = 0;
};

}  // namespace kova::ctlserver
