#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kova::utils {

/// Kills a child that exceeds its time limit, together with its process group.
class Watchdog {
 public:
  /// @param group   a child that leads its own group and is reaped by end() only
  /// @param graceMs time from SIGTERM to SIGKILL; 0: send SIGKILL at once
  Watchdog(pid_t group, const std::string& program, unsigned timeoutMs, unsigned graceMs);

  /// Sends a signal if one is due: SIGTERM at the limit, SIGKILL after the grace time.
  void check();
  /// `step`, or less if a signal is due earlier.
  int pollTimeout(int step) const;
  /// Reaps the child if it has exited; then also kills the rest of a group that exceeded its limit.
  /// @return the child once it is reaped, 0 before, -1 on failure
  pid_t end(int* status) const;

  bool expired() const { return expired_; }

 private:
  void signalAll(int signal) const;

  pid_t group_;
  const std::string& program_;
  unsigned graceMs_;
  std::uint64_t next_;
  bool expired_ = false;
};

}  // namespace kova::utils
