#include <unistd.h>

#include <csignal>

#include "../PrivateRoot.h"
#include "Rig.h"
#include "kova/utils/File.h"

namespace kova::suite {
namespace {

constexpr char kStore[] = "/etc/system.cfg";
constexpr char kAccounts[] = "/etc/passwd";

void write(const char* path, const std::string& text) {
  tests::requirePrivateRoot();
  utils::File file;
  ASSERT_TRUE(file.Initialize(path, utils::FILE_OPEN_MODE_TRUNCATE, 0) && file.WriteString(text) &&
              file.Close());
}

}  // namespace

void startAfresh() {
  tests::requirePrivateRoot();
  writeStore({});
  writeAccounts({});
}

void writeStore(const std::map<std::string, std::string>& settings) {
  std::string text;
  for (const auto& [key, value] : settings) {
    text.append(key).append("=").append(value).append("\n");
  }
  write(kStore, text);
}

void removeStore() {
  tests::requirePrivateRoot();
  ASSERT_EQ(unlink(kStore), 0);
}

void writeAccounts(const std::map<std::string, std::string>& hashes) {
  std::string text;
  for (const auto& [name, hash] : hashes) {
    text.append(name).append(":").append(hash).append(":0:0::/root:/bin/sh\n");
  }
  write(kAccounts, text);
}

bool isRunning(int pid) {
  return kill(pid, 0) == 0;
}

}  // namespace kova::suite
