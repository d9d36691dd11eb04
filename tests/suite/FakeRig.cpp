#include "Platform.h"
#include "Rig.h"

namespace kova::suite {
namespace {

using fakes::platform;
using fakes::ProcessResult;

std::string countTo(int last) {
  std::string text;
  for (int i = 1; i <= last; ++i) {
    text += std::to_string(i) + "\n";
  }
  return text;
}

/// The programs that the suite runs.
ProcessResult script(const std::string& command) {
  static const std::map<std::string, ProcessResult> kPrograms = {
      {"/bin/true", {}},
      {"/bin/false", {1, "", ""}},
      {"/bin/echo one  two", {0, "one  two\n", ""}},
      {"/bin/sh -c echo lost >&2; exit 7", {7, "", "lost\n"}},
      {"/usr/bin/seq 1000", {0, countTo(1000), ""}},
      {"/bin/sleep 60", {}},
      {"/usr/bin/tail -f /dev/null", {}},
  };
  return kPrograms.at(command);
}

}  // namespace

void startAfresh() {
  fakes::reset();
  platform().onRun = script;
}

void writeStore(const std::map<std::string, std::string>& settings) {
  platform().config.values = settings;
}

void removeStore() {
  platform().config.initResult = false;
}

void writeAccounts(const std::map<std::string, std::string>& hashes) {
  platform().accounts.hashes = hashes;
}

bool isRunning(int pid) {
  return platform().background.contains(pid);
}

}  // namespace kova::suite
