#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Camera.h"
#include "kova/utils/UniqueFd.h"

namespace kova::system_test {

/// The processes of one program inside a camera, by the kernel's name of it (proc(5), "comm"), as
/// the host numbers them. Only who may look into the camera's processes finds them: root, or the
/// user who booted it.
std::vector<pid_t> processesOf(const Camera& camera, const std::string& program);

/// A process of a camera as the host sees it.
class HostProcess {
 public:
  /// Throws std::runtime_error when there is no such process.
  explicit HostProcess(pid_t pid);

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  /// @return whether it ended within `limit`
  bool waitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

  /// Resident memory (proc(5), "VmRSS"), and the most there ever was of it ("VmHWM").
  std::size_t residentKiB() const { return statusKiB("VmRSS:"); }
  std::size_t peakResidentKiB() const { return statusKiB("VmHWM:"); }
  std::size_t descriptors() const;

 private:
  std::size_t statusKiB(const std::string& field) const;

  pid_t pid_;
  utils::UniqueFd handle_;
};

/// The control server of a camera. Throws std::runtime_error unless exactly one runs, after a while
/// for it to come up.
HostProcess controlServer(const Camera& camera);

}  // namespace kova::system_test
