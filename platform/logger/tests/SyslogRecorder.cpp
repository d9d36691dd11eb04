#include "SyslogRecorder.h"

#include <cerrno>

#include "../src/SystemLog.h"
#include "kova/logger/Logger.h"

namespace kova::tests {

std::vector<Record> records;

}  // namespace kova::tests

namespace kova::logger {

void openSystemLog(const char*, int, int) {}

void sendToSystemLog(int level, const std::string& text) {
  tests::records.push_back({level, text});
  errno = EBADF;  // as the real function may
}

}  // namespace kova::logger
