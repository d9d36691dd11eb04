#pragma once

#include <utility>

#include "kova/logger/Logger.h"
#include "kova/utils/ExceptionBarrier.h"

namespace kova::ctlserver {

/// Runs the body of a C library's callback. An exception is logged under the callback's name and
/// becomes `failure`, the value that makes the library give up.
template <typename Result, typename Work>
Result callbackBarrier(const char* unit, const char* callback, Result failure,
                       Work&& work) noexcept {
  return utils::exceptionBarrier(failure, std::forward<Work>(work), [&](const char* reason) {
    logger::logInternal("kova_ctlserver", unit, callback, __LINE__, LOG_ERR, 0,
                        "Callback failed: %s", reason);
  });
}

}  // namespace kova::ctlserver
