#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "Camera.h"

namespace kova::attack {

/// A violated invariant, and how often.
struct Finding {
  std::string invariant;
  std::string detail;  ///< of the first time
  std::size_t times;
};

/// Actions and findings of a campaign. Thread-safe.
class Journal {
 public:
  /// @param repeat the command that runs the campaign again
  Journal(const system_test::Camera& camera, std::string repeat);

  /// Records an action before it is taken.
  void act(const std::string& what);
  /// Records a violated invariant. The first violation is printed at once, with the last actions
  /// and the end of the camera's log.
  void fail(const std::string& invariant, const std::string& detail);

  std::size_t actions() const;
  std::vector<Finding> findings() const;

 private:
  void print(const Finding& finding) const;

  const system_test::Camera& camera_;
  const std::string repeat_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  mutable std::mutex mutex_;
  std::size_t actions_ = 0;
  std::deque<std::string> last_;
  std::vector<Finding> findings_;
};

}  // namespace kova::attack
