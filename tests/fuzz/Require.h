#pragma once

#include <cstdlib>

/// Aborts, which the fuzzer reports, unless `holds`.
inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}
