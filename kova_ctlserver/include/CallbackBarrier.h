#pragma once

#include <exception>
#include <utility>

#include "kova/logger/Logger.h"

namespace kova::ctlserver {

/// Runs what a C library's callback has to do. An exception must not unwind through frames of C, so
/// it ends here: it is logged under the callback's name and becomes `failure`, the value by which
/// that library is told to give up.
template <typename Result, typename Work>
Result callbackBarrier(const char* unit, const char* callback, Result failure,
                       Work&& work) noexcept {
  const auto report = [&](const char* reason) {
    logger::logInternal("kova_ctlserver", unit, callback, __LINE__, LOG_ERR, 0,
                        "Callback failed: %s", reason);
  };
  try {
    return std::forward<Work>(work)();
  } catch (const std::exception& exception) {
    report(exception.what());
  } catch (...) {
    report("unknown exception");
  }
  return failure;
}

}  // namespace kova::ctlserver
