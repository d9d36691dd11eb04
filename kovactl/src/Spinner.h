#pragma once

#include <chrono>
#include <string>

namespace kova::ctl {

/// A sign of life with the elapsed time, on a standard error that is a terminal; nothing elsewhere.
/// Wiped off when the object is destroyed.
class Spinner {
 public:
  explicit Spinner(std::string text);
  ~Spinner();
  Spinner(const Spinner&) = delete;
  Spinner& operator=(const Spinner&) = delete;

  /// Draws the next state; at most ten times a second.
  void Turn();

 private:
  using Clock = std::chrono::steady_clock;

  std::string text_;
  bool visible_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_{};
  unsigned state_ = 0;
};

}  // namespace kova::ctl
