#pragma once

#include <syslog.h>

namespace kova::logger {

/// Writes one line to the system log (RFC 5424 levels, see syslog(3)).
///
/// The line reads "IDENTITY UNIT.FUNCTION:LINE: TEXT", followed by ": REASON" when `error` is not
/// 0. Control characters in the text become "\xNN", so a text that a client chose can never start a
/// line of its own; a text beyond 8 KiB is cut and marked with "...". When standard error is a
/// terminal the line is copied there.
///
/// @param identity program or library that speaks, for example "kova_ctlserver"
/// @param unit     source unit without its ending, for example "CtlServer"
/// @param function function that speaks
/// @param line     source line
/// @param level    LOG_ERR (3), LOG_WARNING (4), LOG_INFO (6), ... of syslog(3)
/// @param error    an errno value to explain, or 0
/// @param format   printf(3) format of the text
///
/// Never fails and keeps `errno` as it was.
[[gnu::format(printf, 7, 8)]] void logInternal(const char* identity, const char* unit,
                                               const char* function, int line, int level, int error,
                                               const char* format, ...);

/// Where a line comes from, for what logs in its caller's name. The members are logInternal()'s.
struct Origin {
  const char* identity;
  const char* unit;
  const char* function;
  int line;
};

}  // namespace kova::logger

/// Logs from a source file that defines `kLogIdentity` and `kLogUnit`; FUNCTION is a string.
#define KOVA_LOG_IN(FUNCTION, LEVEL, ERROR, ...) \
  ::kova::logger::logInternal(kLogIdentity, kLogUnit, FUNCTION, __LINE__, LEVEL, ERROR, __VA_ARGS__)

/// The same under the name of the function it stands in.
#define KOVA_LOG(LEVEL, ERROR, ...) KOVA_LOG_IN(__func__, LEVEL, ERROR, __VA_ARGS__)

/// Logs in the name of an Origin.
#define KOVA_LOG_AT(ORIGIN, LEVEL, ERROR, ...)                                                    \
  ::kova::logger::logInternal((ORIGIN).identity, (ORIGIN).unit, (ORIGIN).function, (ORIGIN).line, \
                              LEVEL, ERROR, __VA_ARGS__)

/// The Origin of the place it stands in, as FUNCTION's.
#define KOVA_LOG_ORIGIN(FUNCTION)              \
  ::kova::logger::Origin {                     \
    kLogIdentity, kLogUnit, FUNCTION, __LINE__ \
  }
