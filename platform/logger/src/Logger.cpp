#include "kova/logger/Logger.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Repeats.h"
#include "SystemLog.h"
#include "kova/utils/Clock.h"

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
      char code[sizeof "\\xff"];
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
  std::string escaped = escapeControls(text.c_str());
  return cut ? escaped + "..." : escaped;
}

void write(const std::vector<Line>& lines) {
  const bool shown = !lines.empty() && isatty(STDERR_FILENO) == 1;
  for (const auto& [level, text] : lines) {
    sendToSystemLog(level, text);
    if (shown) {
      std::fprintf(stderr, "%s\n", text.c_str());
    }
  }
}

/// Suppresses repetitions on the way to the system log.
struct Lines {
  std::mutex guard;
  Repeats repeats;
};

// Never destroyed: a line may be logged while the process ends.
Lines& lines() {
  static Lines& only = *new Lines;
  return only;
}

void writeCounted() {
  const std::lock_guard lock(lines().guard);
  write(lines().repeats.takeCounted());
}

void pass(const Line& line) {
  static const int registered = std::atexit(writeCounted);
  static_cast<void>(registered);
  const std::lock_guard lock(lines().guard);
  write(lines().repeats.pass(line, utils::nowMs()));
}

}  // namespace

void flushRepeats() {
  const std::lock_guard lock(lines().guard);
  write(lines().repeats.takeDue(utils::nowMs()));
}

void logInternal(const char* identity, const char* unit, const char* function, int line, int level,
                 int error, const char* format, ...) {
  const int savedErrno = errno;
  va_list arguments;
  va_start(arguments, format);
  std::string text = std::string(identity) + " " + unit + "." + function + ":" +
                     std::to_string(line) + ": " + formatText(format, arguments);
  va_end(arguments);
  if (error != 0) {
    text += ": ";
    text += std::strerror(error);
  }
  pass({level, std::move(text)});
  errno = savedErrno;
}

}  // namespace kova::logger
