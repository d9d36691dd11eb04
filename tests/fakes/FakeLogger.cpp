#include <cstdarg>
#include <cstdio>
#include <new>

#include "Platform.h"
#include "kova/logger/Logger.h"

namespace kova::logger {

void openSystemLog(const char* identity, int options, int facility) {
  fakes::platform().note(std::string("openSystemLog ") + identity + " " + std::to_string(options) +
                         " " + std::to_string(facility));
}

void flushRepeats() {
  ++fakes::platform().repeatsFlushed;
}

void logInternal(const char* identity, const char* unit, const char* function, int line, int level,
                 int error, const char* format, ...) {
  if (std::exchange(fakes::platform().logThrows, false)) {
    throw std::bad_alloc();
  }
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  fakes::platform().log.push_back({unit, function, level, error, std::move(text), identity, line});
}

}  // namespace kova::logger
