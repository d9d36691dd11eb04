#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Camera.h"
#include "kova/utils/UniqueFd.h"

namespace kova::system_test {

/// Host process ids of a program inside a camera, by its "comm" (proc(5)). Only root and the user
/// who booted the camera may find them.
std::vector<pid_t> processesOf(const Camera& camera, const std::string& program);

/// A process of a camera as the host sees it.
class HostProcess {
 public:
  /// Throws std::runtime_error if there is no such process.
  explicit HostProcess(pid_t pid);

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  /// @return whether it ended within `limit`
  bool waitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  /// Resident memory (proc(5), "VmRSS") and its peak ("VmHWM").
  std::size_t residentKiB() const { return statusKiB("VmRSS:"); }
  std::size_t peakResidentKiB() const { return statusKiB("VmHWM:"); }
  std::size_t descriptors() const;

 private:
  std::size_t statusKiB(const std::string& field) const;

  pid_t pid_;
  utils::UniqueFd handle_;
};

/// The control server of a camera. Throws std::runtime_error unless exactly one comes up in time.
HostProcess controlServer(const Camera& camera);

}  // namespace kova::system_test
