#include "TransferServiceTest.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(TransferServiceTest, DownloadRunsThroughItsHooks) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  EXPECT_TRUE(service().add(&task));
  EXPECT_TRUE(service().existsName("task"));
  EXPECT_TRUE(service().existsUri(server.uri()));
  EXPECT_FALSE(task.inTransfer());
  EXPECT_EQ(server.connections(), 0U);

  EXPECT_TRUE(service().service(0));
  EXPECT_TRUE(task.inTransfer());
  EXPECT_FALSE(task.finalizing());

  ASSERT_TRUE(gone(task));
  EXPECT_TRUE(task.finalizing());
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_THAT(task.events, ElementsAre("check", "start", "success"));
  EXPECT_EQ(readFile(path("file")), "body");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TransferServiceTest, UriIsTakenUntilEndOfTurn) {
  RawServer server(answering(okResponse("body")));
  RecordingTask first(server.uri("/1"), path("1"));
  RecordingTask second(server.uri("/2"), path("2"));
  first.done = false;
  second.done = false;
  ASSERT_TRUE(service().add(&first));
  ASSERT_TRUE(service().add(&second));
  ASSERT_TRUE(turnUntil([&] { return first.finalizing() && second.finalizing(); }));

  // Turns iterate by URI: the first task has been finalised when the second one's hook runs.
  RecordingTask again(server.uri("/1"), path("again"));
  bool added = true;
  second.duringSuccess = [&] { added = service().add(&again); };
  first.done = true;
  service().service(0);
  EXPECT_FALSE(added);
  EXPECT_THAT(again.events, IsEmpty());
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 TransferService.add: Task task busy, failed to start, uri=" + first.uri()));
  second.duringSuccess = nullptr;
  EXPECT_FALSE(service().existsUri(first.uri()));
  EXPECT_TRUE(service().add(&again));
}

TEST_F(TransferServiceTest, TaskThatRefusesToStartIsNotAdded) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  task.checkResult = false;
  EXPECT_FALSE(service().add(&task));
  EXPECT_THAT(logLines(), ElementsAre("3 BaseTransferTask.start: Task-specific checks failed",
                                      "3 TransferService.add: Failed to start task, task=task, "
                                      "uri=http://127.0.0.1:1/x"));
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_FALSE(service().existsUri("http://127.0.0.1:1/x"));
}

TEST_F(TransferServiceTest, SuccessFreesNameBeforeUri) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  task.done = false;
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return task.count("success") > 0; }));
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_TRUE(service().existsUri(server.uri()));

  service().service(0);
  EXPECT_EQ(task.count("success"), 2U);
  task.done = true;
  service().service(0);
  EXPECT_EQ(task.count("success"), 3U);
  EXPECT_FALSE(service().existsUri(server.uri()));
}

TEST_F(TransferServiceTest, UploadIsPreparedUntilReady) {
  RawServer server(answering(okResponse("")));
  UploadTask task(server.uri(), "");
  task.prepared = false;
  ASSERT_TRUE(begin(task));
  service().service(0);
  EXPECT_EQ(task.count("prepare"), 2U);
  EXPECT_FALSE(task.inTransfer());
  task.prepared = true;
  task.setPath(write("file", "content"));
  ASSERT_TRUE(gone(task));
  EXPECT_EQ(task.count("prepare"), 3U);
  EXPECT_EQ(task.outcome(), "success");
  EXPECT_THAT(server.requests().at(0).body, ::testing::HasSubstr("content"));
}

TEST_F(TransferServiceTest, UploadCanTurnIntoDownload) {
  RawServer server(answering(okResponse("body")));
  UploadTask task(server.uri(), path("file"));
  task.duringPrepare = [&] { task.setKind(true); };
  EXPECT_EQ(run(task), "success");
  EXPECT_THAT(server.requests().at(0).head, ::testing::StartsWith("GET "));
  EXPECT_EQ(readFile(path("file")), "body");
}

TEST_F(TransferServiceTest, UnknownUrisAreLogged) {
  unsigned char byte = 0;
  EXPECT_FALSE(service().SignalBytesAvailable("u", &byte, 1, 0, 1));
  service().SignalTransferCompleted("u", ctlserver::TRANSFER_OK, 200);
  service().SignalTransferCompleted("u", ctlserver::TRANSFER_CANCELLED, 0);
  EXPECT_EQ(service().recordOfUri("u"), 0U);
  EXPECT_EQ(service().recordOfName("n"), 0U);
  EXPECT_THAT(logLines(),
              ElementsAre("3 TransferService.SignalBytesAvailable: Failed to resolve task by uri=u",
                          "4 multihttp.SignalTransferCompleted: Uri not tracked, uri=u",
                          "3 TransferService.cancel: Failed to resolve task by uri=u",
                          "4 multihttp.SignalTransferCompleted: Uri not tracked, uri=u"));
}

TEST_F(TransferServiceTest, DestroyedServiceLeavesItsTasks) {
  RawServer server(stalling());
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return server.requests().size() == 1; }));
  endService();
  EXPECT_EQ(task.outcome(), "");
}

}  // namespace
}  // namespace kova::engine
