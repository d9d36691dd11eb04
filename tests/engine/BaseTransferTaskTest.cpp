#include "BaseTransferTask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine.h"
#include "kova/messages/Events.h"

namespace kova::engine {
namespace {

using ctlserver::BaseTransferTask;
using ctlserver::TransferStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BaseTransferTaskTest : public ::testing::Test {
 protected:
  void SetUp() override { fakes::reset(); }

  static void expectRefused(BaseTransferTask& task, const std::string& text) {
    fakes::reset();
    EXPECT_FALSE(task.start());
    EXPECT_THAT(logLines(), ElementsAre("3 BaseTransferTask.start: " + text));
  }

  RecordingTask task_{"http://host/file", "/tmp/file"};
};

TEST_F(BaseTransferTaskTest, FreshTaskHasDocumentedDefaults) {
  const BaseTransferTask task;
  EXPECT_EQ(task.name(), "");
  EXPECT_TRUE(task.download());
  EXPECT_EQ(task.maxSz(), 0U);
  EXPECT_EQ(task.uri(), "");
  EXPECT_EQ(task.path(), "");
  EXPECT_EQ(task.timeout(), 0U);
  EXPECT_EQ(task.certFile(), "/etc/persistent/server.pem");
  EXPECT_EQ(task.privKeyFile(), "");
  EXPECT_EQ(task.caCertFile(), "/etc/persistent/controller.crt");
  EXPECT_TRUE(task.formFields().isEmpty());
  EXPECT_EQ(task.startTime(), 0U);
  EXPECT_FALSE(task.inTransfer());
  EXPECT_FALSE(task.finalizing());
  EXPECT_EQ(task.ipcRequestId(), 0U);
  EXPECT_EQ(task.ipcOrigin(), "");
  EXPECT_FALSE(task.sendNoEvents());
}

TEST_F(BaseTransferTaskTest, BaseHooksAcceptTask) {
  BaseTransferTask task;
  task.setPath("/tmp/file");
  bool ready = false;
  std::string path;
  bool done = false;
  EXPECT_TRUE(task.onCheck());
  EXPECT_TRUE(task.onStart());
  task.onPrepare(ready, path);
  task.onSuccess(done);
  task.onFailure(ctlserver::TRANSFER_FAILED, 500);
  EXPECT_TRUE(ready);
  EXPECT_EQ(path, "/tmp/file");
  EXPECT_TRUE(done);
}

TEST_F(BaseTransferTaskTest, CompleteTaskStartsItsClock) {
  EXPECT_TRUE(task_.start());
  EXPECT_EQ(task_.startTime(), fakes::platform().nowMs);
  EXPECT_THAT(task_.events, ElementsAre("check", "start"));
  EXPECT_THAT(fakes::platform().log, IsEmpty());
}

TEST_F(BaseTransferTaskTest, FirstMissingValueIsNamed) {
  task_.setName("").setMaxSz(0).setUri("").setPath("").setTimeout(0).setSendNoEvents(false);
  expectRefused(task_, "Name must be set");
  expectRefused(task_.setName("task"), "Max size must be set");
  expectRefused(task_.setKind(false), "Max size must be set");
  expectRefused(task_.setKind(true).setMaxSz(1), "URI must be set");
  expectRefused(task_.setUri("_UNINITIALIZED_"), "URI must be set");
  expectRefused(task_.setUri("http://host/file"), "Path must be set when downloading");
  expectRefused(task_.setPath("_UNINITIALIZED_"), "Path must be set when downloading");
  expectRefused(task_.setPath("/tmp/file"), "Timeout must be set");
  expectRefused(task_.setTimeout(1), "IPC origin must be set when sending events is on");
  EXPECT_TRUE(task_.setIpcOrigin("client").start());
}

TEST_F(BaseTransferTaskTest, UploadNeedsNoPath) {
  EXPECT_TRUE(task_.setKind(false).setPath("").start());
}

TEST_F(BaseTransferTaskTest, TaskRefusalPrecedesCommonChecks) {
  task_.checkResult = false;
  expectRefused(task_.setName(""), "Task-specific checks failed");
  EXPECT_THAT(task_.events, ElementsAre("check"));
  EXPECT_EQ(task_.startTime(), 0U);
}

TEST_F(BaseTransferTaskTest, StartReturnsResultOfOnStart) {
  task_.startResult = false;
  EXPECT_FALSE(task_.start());
  EXPECT_THAT(fakes::platform().log, IsEmpty());
}

TEST_F(BaseTransferTaskTest, RestartResetsRun) {
  ASSERT_TRUE(task_.start());
  task_.setInTransfer(true);
  task_.setFinalizing(true);
  fakes::platform().nowMs += 500;
  ASSERT_TRUE(task_.start());
  EXPECT_EQ(task_.startTime(), fakes::platform().nowMs);
  EXPECT_FALSE(task_.inTransfer());
  EXPECT_FALSE(task_.finalizing());
}

TEST_F(BaseTransferTaskTest, DecodedStatusNamesOnlyFailures) {
  const auto decode = [](int status) {
    return BaseTransferTask::decodeTransferStatus(static_cast<TransferStatus>(status));
  };
  EXPECT_EQ(decode(0), "TRANSFER_FAILED");
  EXPECT_EQ(decode(1), "TRANSFER_FAILED");
  EXPECT_EQ(decode(2), "DISK_IO_FAILED");
  EXPECT_EQ(decode(3), "TRANSFER_FAILED");
  EXPECT_EQ(decode(4), "TRANSFER_BUSY");
  EXPECT_EQ(decode(5), "TRANSFER_TIMEOUT");
  EXPECT_EQ(decode(6), "TRANSFER_TOOLARGE");
  EXPECT_EQ(decode(7), "TRANSFER_FAILED");
  EXPECT_EQ(decode(-1), "TRANSFER_FAILED");
}

TEST_F(BaseTransferTaskTest, StatusEventGoesToRequester) {
  task_.setSendNoEvents(false).setIpcOrigin("client").setIpcRequestId(1ULL << 63U);
  task_.notifyStatus("disk_io_failed");
  ASSERT_EQ(fakes::platform().bus.sent.size(), 1U);
  ipc::messages::EventTransferRequestStatus event(fakes::platform().bus.sent.front());
  EXPECT_EQ(event.functionName(), "EventTransferRequestStatus");
  EXPECT_EQ(event.to(), "client");
  EXPECT_EQ(event.requestId(), 1ULL << 63U);
  EXPECT_EQ(event.status(), "DISK_IO_FAILED");
  EXPECT_THAT(fakes::platform().log, IsEmpty());
}

TEST_F(BaseTransferTaskTest, DisabledEventsAreNotSent) {
  task_.setIpcOrigin("client").notifyStatus("OK");
  EXPECT_THAT(fakes::platform().bus.sent, IsEmpty());
  EXPECT_THAT(fakes::platform().journal, IsEmpty());
}

TEST_F(BaseTransferTaskTest, MissingBusIsLogged) {
  fakes::platform().bus.absent = true;
  task_.setSendNoEvents(false).notifyStatus("OK");
  EXPECT_THAT(logLines(), ElementsAre("3 BaseTransferTask.notifyStatus: pIpc is NULL"));
}

TEST_F(BaseTransferTaskTest, UnsendableEventIsLoggedOnce) {
  fakes::platform().bus.sendResult = false;
  task_.setSendNoEvents(false).setIpcOrigin("client").notifyStatus("OK");
  EXPECT_EQ(fakes::platform().bus.sent.size(), 1U);
  EXPECT_THAT(logLines(), ElementsAre("4 BaseTransferTask.notifyStatus: Failed to send transfer "
                                      "task status notification"));
}

}  // namespace
}  // namespace kova::engine
