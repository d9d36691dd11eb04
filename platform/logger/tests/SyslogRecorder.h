#pragma once

#include <string>
#include <vector>

/// What a test program writes to the system log is kept here instead. The program is linked with
/// "--wrap=syslog,--wrap=__syslog_chk", see ld(1).
namespace kova::tests {

struct Record {
  int priority;
  std::string text;
};

extern std::vector<Record> records;

}  // namespace kova::tests
