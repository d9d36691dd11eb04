#include "SyslogRecorder.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace kova::tests {

std::vector<Record> records;

namespace {

void record(int priority, const char* format, va_list arguments) {
  std::array<char, 65536> text;
  std::vsnprintf(text.data(), text.size(), format, arguments);
  records.push_back({priority, text.data()});
  errno = EBADF;  // as syslog(3) may
}

}  // namespace
}  // namespace kova::tests

// The second is what an optimised build calls.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void __wrap_syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  kova::tests::record(priority, format, arguments);
  va_end(arguments);
}
void __wrap___syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  kova::tests::record(priority, format, arguments);
  va_end(arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier)
