#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "BaseTransferTask.h"
#include "Platform.h"
#include "TransferService.h"

namespace kova::engine {

/// A task that records which hooks ran, and behaves as its members say.
class RecordingTask : public ctlserver::BaseTransferTask {
 public:
  /// A download of `uri` to `path` with all parameters set.
  RecordingTask(const std::string& uri, const std::string& path) {
    setName("task").setUri(uri).setPath(path).setMaxSz(100'000'000).setTimeout(60'000);
    setSendNoEvents(true).setCertFile("");
  }

  bool onCheck() override {
    events.emplace_back("check");
    return checkResult;
  }
  bool onStart() override {
    events.emplace_back("start");
    return startResult;
  }
  void onPrepare(bool& ready, std::string& path) override {
    events.emplace_back("prepare");
    if (duringPrepare) {
      duringPrepare();
    }
    if (prepared) {
      BaseTransferTask::onPrepare(ready, path);
    }
  }
  void onSuccess(bool& isDone) override {
    events.emplace_back("success");
    if (duringSuccess) {
      duringSuccess();
    }
    isDone = isDone || done;
  }
  void onFailure(ctlserver::TransferStatus status, int httpCode) override {
    events.push_back("failure " + std::to_string(status) + " " + std::to_string(httpCode));
  }

  /// "check", "start", "prepare", "success" and "failure STATUS HTTPCODE", in order.
  std::vector<std::string> events;
  bool checkResult = true;
  bool startResult = true;
  bool prepared = true;
  bool done = true;
  std::function<void()> duringPrepare;
  std::function<void()> duringSuccess;

  unsigned count(const std::string& event) const;
  /// How the run ended: "success", "failure STATUS HTTPCODE", or "" while it goes on.
  std::string outcome() const;
};

/// As RecordingTask, for an upload.
class UploadTask : public RecordingTask {
 public:
  UploadTask(const std::string& uri, const std::string& path) : RecordingTask(uri, path) {
    setKind(false);
  }
};

/// A HTTP driver that keeps what it downloads in memory and uploads `upload`.
class MemoryHttp : public ctlserver::BaseHTTP {
 public:
  using BaseHTTP::cause;

  void SignalTransferCompleted(const std::string& uri, ctlserver::TransferStatus status,
                               int httpCode) override {
    completions.push_back(uri + " " + std::to_string(status) + " " + std::to_string(httpCode));
    if (onCompletion) {
      onCompletion();
    }
  }
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override {
    chunks.emplace_back(offset, total);
    if (accept && !accept()) {
      return false;
    }
    bodies[uri].append(reinterpret_cast<char*>(data), len);
    return true;
  }
  bool GetUploadTotalSize(const std::string& /*uri*/, unsigned long& size) override {
    size = upload.size();
    return sizeKnown;
  }
  unsigned long FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                 unsigned long size) override;

  bool start(const std::string& uri, bool download = true, const variant::Variant& fields = {}) {
    return RegisterRequest(download, uri, fields, 0, "", "", "");
  }

  std::map<std::string, std::string> bodies;           ///< by URI
  std::vector<std::string> completions;                ///< "URI STATUS HTTPCODE"
  std::vector<std::pair<unsigned long, long>> chunks;  ///< offset and total of each
  std::string upload;
  std::size_t uploaded = 0;
  bool sizeKnown = true;
  std::function<bool()> accept;  ///< asked for each chunk
  std::function<void()> beforeFilling;
  std::function<void()> onCompletion;
  unsigned long excess = 0;  ///< bytes that FillUploadBuffer claims beyond the size of the buffer
};

/// Expects on destruction as many open descriptors as on construction.
class DescriptorCheck {
 public:
  DescriptorCheck() = default;
  ~DescriptorCheck() { EXPECT_EQ(tests::openDescriptors(), before_) << "a descriptor was leaked"; }
  DescriptorCheck(const DescriptorCheck&) = delete;
  DescriptorCheck& operator=(const DescriptorCheck&) = delete;

 private:
  const long before_ = tests::openDescriptors();
};

/// Runs the engine in this thread. No test may leak a descriptor.
class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  ctlserver::TransferService& service() { return *service_; }
  /// Destroys the service, as the daemon does at exit.
  void endService() { service_.reset(); }

  /// Turns the service until `condition` holds; false if it does not within 20 seconds.
  bool turnUntil(const std::function<bool()>& condition);
  /// Adds the task and turns the service until it has removed the task.
  /// @return how it ended, see RecordingTask::outcome
  std::string run(RecordingTask& task);
  /// Adds the task and turns the service once.
  bool begin(RecordingTask& task) { return service().add(&task) && service().service(0); }

  /// A path in the test's own folder.
  std::string path(const std::string& name) const { return folder_ / name; }
  std::string write(const std::string& name, const std::string& content) const;

 private:
  DescriptorCheck descriptors_;  // outlives the members of a derived fixture
  std::unique_ptr<ctlserver::TransferService> service_;
  const tests::TemporaryFolder folder_;
};

/// Polls until `condition` holds; false if it does not within 20 seconds.
bool eventually(const std::function<bool()>& condition);
/// Services a driver until `condition` holds, likewise.
bool serviceUntil(ctlserver::BaseHTTP& http, const std::function<bool()>& condition);

inline std::vector<std::string> logLines() {
  return fakes::platform().logLines();
}
/// The line about a transfer that ended with an unexpected CURLcode.
std::string curlErrorLine(int curlCode);
/// The line about a task that failed.
std::string failureLine(const std::string& uri, const std::string& reason, int httpCode);

std::string readFile(const std::string& path);
/// `size` bytes that look random and depend on `seed` only.
std::string noise(std::size_t size, unsigned seed = 1);

}  // namespace kova::engine
