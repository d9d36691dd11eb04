#pragma once

#include <sys/types.h>

#include <string>

#include "Camera.h"
#include "kova/utils/UniqueFd.h"

namespace kova::system_test {

/// A program inside a camera at a terminal of its own, for what wants to talk to a person. It is
/// hung up on when the object goes.
class Terminal {
 public:
  /// Throws std::system_error when it cannot be started.
  Terminal(const Camera& camera, const std::vector<std::string>& command);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// Waits until a text is shown.
  /// @return whether it was within `limit`
  bool waitFor(const std::string& text,
               std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
  /// Types a line.
  void type(const std::string& line) const;
  /// All that was shown so far.
  const std::string& shown() const { return shown_; }

 private:
  void read() const;

  utils::UniqueFd terminal_;
  pid_t pid_ = -1;
  mutable std::string shown_;
};

/// Whether the camera's login lets the administrator in with a password.
bool canLogIn(const Camera& camera, const std::string& user, const std::string& password);

}  // namespace kova::system_test
