#pragma once

#include <syslog.h>

namespace kova::logger {

/// Opens the system log with the arguments of openlog(3); of the options, only LOG_PID affects the
/// lines of logInternal(). A program that never calls this logs under its own name, without its
/// process id, to the facility LOG_USER.
void openSystemLog(const char* identity, int options, int facility);

/// Writes one line to the system log (RFC 5424 levels, see syslog(3)).
///
/// The line reads "IDENTITY UNIT.FUNCTION:LINE: TEXT", followed by ": REASON" when `error` is not
/// 0. Control characters in the text become "\xNN", so that text chosen by a client cannot forge a
/// line; text beyond 8 KiB is truncated and marked with "...". If standard error is a terminal, the
/// line is copied there.
///
/// A line, or a cycle of up to four lines, that repeats within a second is counted instead of
/// written. The count is written once a second as "... repeated N times", before any other line,
/// and at exit. Lines that the system log does not accept in time are dropped; their number is
/// logged once it accepts lines again.
///
/// @param identity program or library that logs, for example "kova_ctlserver"
/// @param unit     source file without its extension, for example "CtlServer"
/// @param function function that logs
/// @param line     source line
/// @param level    LOG_ERR (3), LOG_WARNING (4), LOG_INFO (6), ... of syslog(3)
/// @param error    an errno value to explain, or 0
/// @param format   printf(3) format of the text
///
/// Never fails, and preserves `errno`.
[[gnu::format(printf, 7, 8)]] void logInternal(const char* identity, const char* unit,
                                               const char* function, int line, int level, int error,
                                               const char* format, ...);

/// Writes the counts of repeated lines that are a second old. A process with long idle periods
/// should call it periodically; without such counts it makes no system call.
void flushRepeats();

/// Where a line comes from, for functions that log on behalf of their caller. The members are
/// parameters of logInternal().
struct Origin {
  const char* identity;
  const char* unit;
  const char* function;
  int line;
};

}  // namespace kova::logger

/// Logs from a source file that defines `kLogIdentity` and `kLogUnit`; FUNCTION is a string. LINE
/// is for helpers that log on behalf of their caller and take `int line = __builtin_LINE()` as
/// their last parameter.
#define KOVA_LOG_LINE(LINE, FUNCTION, LEVEL, ERROR, ...) \
  ::kova::logger::logInternal(kLogIdentity, kLogUnit, FUNCTION, LINE, LEVEL, ERROR, __VA_ARGS__)

/// The same, with the current line.
#define KOVA_LOG_IN(FUNCTION, LEVEL, ERROR, ...) \
  KOVA_LOG_LINE(__LINE__, FUNCTION, LEVEL, ERROR, __VA_ARGS__)

/// The same, with the current line and function.
#define KOVA_LOG(LEVEL, ERROR, ...) KOVA_LOG_IN(__func__, LEVEL, ERROR, __VA_ARGS__)

/// Logs on behalf of an Origin.
#define KOVA_LOG_AT(ORIGIN, LEVEL, ERROR, ...)                                                    \
  ::kova::logger::logInternal((ORIGIN).identity, (ORIGIN).unit, (ORIGIN).function, (ORIGIN).line, \
                              LEVEL, ERROR, __VA_ARGS__)

/// The Origin of the current line, with FUNCTION as the function.
#define KOVA_LOG_ORIGIN(FUNCTION)              \
  ::kova::logger::Origin {                     \
    kLogIdentity, kLogUnit, FUNCTION, __LINE__ \
  }
