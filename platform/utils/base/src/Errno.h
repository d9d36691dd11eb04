#pragma once

#include <cerrno>

namespace kova::utils {

/// Restores `errno` at the end of its scope, or sets it to a given value.
class ErrnoGuard {
 public:
  ErrnoGuard() = default;
  ~ErrnoGuard() { errno = value_; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

  void set(int error) { value_ = error; }

 private:
  int value_ = errno;
};

/// Sets `errno` and returns false.
inline bool failWith(int error) {
  errno = error;
  return false;
}

}  // namespace kova::utils
