#include "kova/logger/Logger.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace kova::logger {
namespace {

constexpr std::size_t kMaxText = 8192;

std::string escapeControls(const char* text) {
  std::string escaped;
  for (const char* p = text; *p != '\0'; ++p) {
    const auto byte = static_cast<unsigned char>(*p);
    if (byte >= 0x20 && byte != 0x7f) {
      escaped.push_back(*p);
    } else {
      char code[5];
      std::snprintf(code, sizeof code, "\\x%02x", byte);
      escaped += code;
    }
  }
  return escaped;
}

[[gnu::format(printf, 1, 0)]] std::string formatText(const char* format, va_list arguments) {
  std::string text(kMaxText + 1, '\0');
  const int needed = std::vsnprintf(text.data(), text.size(), format, arguments);
  if (needed < 0) {
    return format;
  }
  const bool cut = static_cast<std::size_t>(needed) > kMaxText;
  text.resize(cut ? kMaxText : static_cast<std::size_t>(needed));
  std::string escaped = escapeControls(text.c_str());
  return cut ? escaped + "..." : escaped;
}

}  // namespace

void logInternal(const char* identity, const char* unit, const char* function, int line, int level,
                 int error, const char* format, ...) {
  const int savedErrno = errno;
  va_list arguments;
  va_start(arguments, format);
  std::string text = formatText(format, arguments);
  va_end(arguments);
  if (error != 0) {
    text += ": ";
    text += std::strerror(error);
  }
  syslog(level, "%s %s.%s:%d: %s", identity, unit, function, line, text.c_str());
  if (isatty(STDERR_FILENO) == 1) {
    std::fprintf(stderr, "%s %s.%s:%d: %s\n", identity, unit, function, line, text.c_str());
  }
  errno = savedErrno;
}

}  // namespace kova::logger
