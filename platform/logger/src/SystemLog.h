#pragma once

#include <string>

namespace kova::logger {

/// Sends one line to the system log, with the label set by openSystemLog().
///
/// Waits at most 200 ms in any second for a system log that lags behind, then drops the line. The
/// next line that is accepted is preceded by the number of dropped ones.
/// @param level LOG_ERR (3), LOG_WARNING (4), LOG_INFO (6), ... of syslog(3)
void sendToSystemLog(int level, const std::string& text);

}  // namespace kova::logger
