#pragma once

#include <string>
#include <vector>

/// Replaces the logger's connection to syslogd and records the lines of a test program.
namespace kova::tests {

struct Record {
  int priority;
  std::string text;
};

extern std::vector<Record> records;

}  // namespace kova::tests
