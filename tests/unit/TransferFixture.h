#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "../PrivateRoot.h"
#include "UnitTest.h"

namespace kova::ctlserver {

/// Starts each test with an empty /tmp and /etc/persistent and a fresh platform.
class TransferTest : public testing::Test {
 protected:
  void SetUp() override {
    tests::requirePrivateRoot();
    empty("/tmp");
    empty("/etc/persistent");
    fakes::reset();
  }

  /// Removes a folder's files and empty folders. Other entries do not belong to the tests: a
  /// checkout below /tmp, for instance.
  static void empty(const std::string& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      std::error_code stays;
      std::filesystem::remove(entry.path(), stays);
    }
  }

  static bool exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
  }

  static void write(const std::string& path, const std::string& content) {
    tests::writeText(path, content);
  }
  static std::string read(const std::string& path) { return tests::readText(path); }

  static std::vector<std::string> logged() { return platform().logLines(); }

  /// "FUNCTION to=ENDPOINT id=REQUEST OUTCOME" of each event sent so far.
  static std::vector<std::string> events() {
    std::vector<std::string> texts;
    for (const auto& event : platform().bus.sent) {
      const Variant* outcome = event.find("status");
      texts.push_back(event.find("functionName")->toText() + " to=" + event.find("to")->toText() +
                      " id=" + std::to_string(event.find("requestId")->toNumber<std::uint64_t>()) +
                      " " + (outcome != nullptr ? outcome : event.find("reason"))->toText());
    }
    return texts;
  }
};

/// Records with each reported status whether the task's file existed at that time.
template <typename Task>
class Watched : public Task {
 public:
  using Task::Task;
  void notifyStatus(const std::string& status) override {
    seen.push_back(status + (std::filesystem::exists(file) ? " with" : " without"));
  }
  std::string file = this->path();
  std::vector<std::string> seen;
};

}  // namespace kova::ctlserver
