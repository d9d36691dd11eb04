#pragma once

#include <exception>
#include <utility>

namespace kova::utils {

/// Runs `work` and returns its result. Stops exceptions, which must not unwind through C library
/// frames or out of a public operation: `report` receives the text, and `failure` is returned.
/// @param report callable with a `const char*`; must not throw
template <typename Result, typename Work, typename Report>
Result exceptionBarrier(Result failure, Work&& work, Report&& report) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (const std::exception& exception) {
    std::forward<Report>(report)(exception.what());
  } catch (...) {
    std::forward<Report>(report)("unknown exception");
  }
  return failure;
}

}  // namespace kova::utils
