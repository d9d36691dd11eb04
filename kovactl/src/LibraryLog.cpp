#include "LibraryLog.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Text.h"
#include "kova/logger/Logger.h"

namespace kova::ctl::library_log {
namespace {

bool printing = false;
std::string problem;

}  // namespace

void verbose(bool on) {
  printing = on;
}

const std::string& lastProblem() {
  return problem;
}

}  // namespace kova::ctl::library_log

namespace kova::logger {

// Takes the place of the platform logger's at link time.
void logInternal(const char*, const char* unit, const char* function, int line, int level,
                 int error, const char* format, ...) {
  namespace log = kova::ctl::library_log;
  const int savedErrno = errno;
  std::array<char, 1024> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  std::string message = text.data();
  if (error != 0) {
    message += std::string(": ") + std::strerror(error);
  }
  if (log::printing) {
    std::fprintf(stderr, "kovactl: %s.%s:%d: %s\n", unit, function, line,
                 kova::ctl::printable(message).c_str());
  }
  if (level <= LOG_WARNING) {
    log::problem = std::move(message);
  }
  errno = savedErrno;
}

}  // namespace kova::logger
