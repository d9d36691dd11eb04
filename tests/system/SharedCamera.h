#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Camera.h"
#include "HostProcess.h"

namespace kova::system_test {

/// The lines added to a camera's system log from now on.
class LogMark {
 public:
  explicit LogMark(const Camera& camera) : camera_(camera), begin_(camera.log().size()) {}

  std::string text() const { return camera_.log().substr(begin_); }
  /// Whether a text appears in time.
  bool waitFor(const std::string& wanted,
               std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return eventually([&] { return text().find(wanted) != std::string::npos; }, limit);
  }
  std::vector<std::string> linesWith(const std::string& wanted) const {
    std::vector<std::string> lines;
    std::istringstream log(text());
    for (std::string line; std::getline(log, line);) {
      if (line.find(wanted) != std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }

 private:
  const Camera& camera_;
  std::size_t begin_;
};

/// How often `part` occurs in `whole`.
inline std::size_t occurrences(const std::string& whole, const std::string& part) {
  std::size_t count = 0;
  for (auto at = whole.find(part); at != std::string::npos; at = whole.find(part, at + 1)) {
    ++count;
  }
  return count;
}

/// One camera for all tests of a program. Each test leaves it serving, its button released.
class SharedCamera : public testing::Test {
 public:
  static void SetUpTestSuite() { camera_ = std::make_unique<Camera>(); }
  static void TearDownTestSuite() { camera_.reset(); }

 protected:
  void SetUp() override {
    ASSERT_NE(camera_, nullptr);
    ASSERT_TRUE(camera_->waitForService());
  }
  static Camera& camera() { return *camera_; }

 private:
  static inline std::unique_ptr<Camera> camera_;
};

/// As SharedCamera, for tests that the control server must survive.
class UnharmedCamera : public SharedCamera {
 protected:
  void SetUp() override {
    SharedCamera::SetUp();
    if (!HasFatalFailure()) {
      before_ = controlServer(camera()).pid();
    }
  }
  void TearDown() override {
    EXPECT_EQ(processesOf(camera(), "kova_ctlserver"), std::vector<pid_t>{before_});
    const Result stats = camera().ctl({"stats", "--json"});
    EXPECT_EQ(stats.status, 0) << stats.err;
  }

 private:
  pid_t before_ = 0;
};

}  // namespace kova::system_test
