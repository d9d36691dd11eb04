#pragma once

#include <fcntl.h>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {

/// A close-on-exec pipe(2).
struct Pipe {
  UniqueFd read;
  UniqueFd write;

  /// Opens the pipe with both descriptors above 2, even if this process has no standard streams, so
  /// that they can be duplicated to a child's in any order. On failure returns false and sets
  /// `errno`.
  bool open() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read = aboveStandard(UniqueFd(ends[0]));
    write = aboveStandard(UniqueFd(ends[1]));
    return read && write;
  }

 private:
  static UniqueFd aboveStandard(UniqueFd fd) {
    if (fd.get() > STDERR_FILENO) return fd;
    return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
};

}  // namespace kova::utils
