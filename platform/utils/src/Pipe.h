#pragma once

#include <fcntl.h>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {

/// A pipe(2), closed on exec.
struct Pipe {
  UniqueFd read;
  UniqueFd write;

  /// Both ends get descriptors above 2 also where this process has no standard streams: a child can
  /// then be given them in any order. False with `errno` set.
  bool Open() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read = AboveStandard(UniqueFd(ends[0]));
    write = AboveStandard(UniqueFd(ends[1]));
    return read && write;
  }

 private:
  static UniqueFd AboveStandard(UniqueFd fd) {
    if (fd.Get() > STDERR_FILENO) return fd;
    return UniqueFd(fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
};

}  // namespace kova::utils
