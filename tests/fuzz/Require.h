#pragma once

#include <cstdlib>

/// Ends the program, which the fuzzer reports, unless `holds`.
inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}
