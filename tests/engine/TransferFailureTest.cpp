// Tasks that end early: deadlines, size limits and errors.

#include "CurlFaults.h"
#include "TransferServiceTest.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;

class TransferFailureTest : public TransferServiceTest {
 protected:
  /// Downloads into path("file"), at most `most` bytes.
  std::string fetch(const RawServer& server, unsigned most) {
    RecordingTask task(server.uri(), path("file"));
    task.setMaxSz(most);
    return run(task);
  }
};

TEST_F(TransferFailureTest, UploadNeverReadyTimesOutWithoutRequest) {
  RawServer server(answering(okResponse("")));
  UploadTask task(server.uri(), "");
  task.prepared = false;
  ASSERT_TRUE(begin(task));
  fakes::platform().nowMs += task.timeout();
  service().service(0);
  EXPECT_EQ(task.outcome(), "") << "the deadline itself has not passed";
  fakes::platform().nowMs += 1;
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 5 0");
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_THAT(logLines(), ElementsAre(timeout("preparing files for transfer", task)));
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(TransferFailureTest, UploadOverLimitEndsOnce) {
  UploadTask task("http://127.0.0.1:1/x", write("upload", "12345"));
  task.setMaxSz(4);
  ASSERT_TRUE(begin(task));
  EXPECT_THAT(task.events, ElementsAre("check", "start", "prepare", "failure 6 0"));
}

TEST_F(TransferFailureTest, LateTransferIsCancelledAndReportedOnce) {
  RawServer server(stalling());
  RecordingTask task(server.uri(), path("file"));
  task.setTimeout(999);  // libcurl's own time-out is 0 then: none
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return server.requests().size() == 1; }));
  passDeadline(task);
  service().service(0);
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 5 0");
  EXPECT_THAT(logLines(), ElementsAre(timeout("in transfer", task)));

  // The engine has released the URI and the file.
  RecordingTask next(server.uri(), path("file"));
  ASSERT_TRUE(begin(next));
  EXPECT_TRUE(next.inTransfer());
}

TEST_F(TransferFailureTest, UnfinishedTaskTimesOut) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  task.done = false;
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return task.count("success") > 0; }));
  passDeadline(task);
  service().service(0);
  EXPECT_EQ(task.events.back(), "failure 5 0");
  EXPECT_EQ(task.count("failure 5 0"), 1U);
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_THAT(logLines(), ElementsAre(timeout("finalizing task", task)));
}

TEST_F(TransferFailureTest, AnnouncedSizeOverLimitWritesNothing) {
  RawServer server(answering(okResponse(noise(1001))));
  EXPECT_EQ(fetch(server, 1000), "failure 6 0");
  EXPECT_THAT(logLines(), ElementsAre(failureLine(server.uri(), "TRANSFER_TOOLARGE(6)", 0)));
  EXPECT_EQ(readFile(path("file")), "");
}

TEST_F(TransferFailureTest, AnnouncedSizeAtLimitPasses) {
  RawServer server(answering(okResponse(noise(1000))));
  EXPECT_EQ(fetch(server, 1000), "success");
  EXPECT_EQ(readFile(path("file")), noise(1000));
}

TEST_F(TransferFailureTest, UnknownSizeStopsAtFirstChunkOverLimit) {
  const std::string body = noise(1'000'000);
  RawServer server(once("HTTP/1.1 200 OK\r\n\r\n" + body));
  EXPECT_EQ(fetch(server, 100'000), "failure 6 0");
  EXPECT_THAT(logLines(), ElementsAre(failureLine(server.uri(), "TRANSFER_TOOLARGE(6)", 0)));
  const std::string written = readFile(path("file"));
  EXPECT_GT(written.size(), 100'000U);
  EXPECT_LE(written.size(), 100'000U + CURL_MAX_WRITE_SIZE);
  EXPECT_TRUE(body.starts_with(written));
}

TEST_F(TransferFailureTest, UnknownSizeThatReachesLimitPasses) {
  RawServer server(once("HTTP/1.1 200 OK\r\n\r\n" + noise(1000)));
  EXPECT_EQ(fetch(server, 1), "success");
  EXPECT_EQ(readFile(path("file")).size(), 1000U);
}

TEST_F(TransferFailureTest, AnnouncedSizeOfZeroIsUnknown) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  task.setMaxSz(3);
  ASSERT_TRUE(begin(task));
  unsigned char data[] = "data";
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 3, 0));
  EXPECT_EQ(task.outcome(), "");
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 4, 0));
  EXPECT_EQ(task.outcome(), "failure 6 0");
}

TEST_F(TransferFailureTest, ZeroLimitIsUnlimited) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  ASSERT_TRUE(begin(task));
  task.setMaxSz(0);
  unsigned char data[] = "data";
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 0, 1'000'000));
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 1'000'000, -1));
  EXPECT_EQ(readFile(path("file")), "datadata");
  EXPECT_EQ(task.outcome(), "");
}

TEST_F(TransferFailureTest, ChunksOfEndingTaskAreDropped) {
  RawServer server(stalling());
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(3);
  ASSERT_TRUE(begin(task));
  unsigned char data[] = "data";
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 4, -1));
  EXPECT_TRUE(service().SignalBytesAvailable(task.uri(), data, 4, 0, -1));
  EXPECT_EQ(readFile(path("file")), "");
  EXPECT_EQ(task.outcome(), "failure 6 0");
  EXPECT_TRUE(service().existsUri(task.uri()));
  EXPECT_FALSE(service().existsName("task"));
  RecordingTask again(task.uri(), path("again"));
  EXPECT_FALSE(service().add(&again));
  service().service(0);
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_EQ(task.outcome(), "failure 6 0");
}

TEST_F(TransferFailureTest, UnopenableFileFailsTask) {
  RecordingTask task("http://127.0.0.1:1/x", path("missing/file"));
  ASSERT_TRUE(begin(task));
  EXPECT_EQ(task.outcome(), "failure 1 0");
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_THAT(logLines(),
              ElementsAre("4 TransferService.service: Failed to register transfer, task=task, "
                          "uri=http://127.0.0.1:1/x"));
}

TEST_F(TransferFailureTest, FailedCancelStillRemovesTask) {
  RawServer server(stalling());
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(begin(task));
  passDeadline(task);
  curlFaults().removeHandle = CURLM_BAD_EASY_HANDLE;
  service().service(0);
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_THAT(
      logLines(),
      ElementsAre(timeout("in transfer", task),
                  "3 basehttp.CancelTransfer: curl_multi_remove_handle failed: 2 (Invalid easy "
                  "handle)",
                  "3 TransferService.cancelFinalize: Internal error cancelling transfer, uri=" +
                      task.uri()));
}

TEST_F(TransferFailureTest, FailedEngineDoesNotDelayDeadlines) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  ASSERT_TRUE(service().add(&task));
  passDeadline(task);
  curlFaults().wait = CURLM_INTERNAL_ERROR;
  EXPECT_FALSE(service().service(0));
  EXPECT_EQ(task.outcome(), "failure 5 0");
}

TEST_F(TransferFailureTest, FailureLeavesOtherTasksRunning) {
  RawServer server(answering(okResponse("body")));
  RecordingTask good(server.uri(), path("good"));
  RecordingTask bad("http://127.0.0.1:1/x", path("bad"));
  ASSERT_TRUE(service().add(&good));
  ASSERT_TRUE(service().add(&bad));
  ASSERT_TRUE(gone(good) && gone(bad));
  EXPECT_EQ(good.outcome(), "success");
  EXPECT_EQ(bad.outcome(), "failure 1 0");
}

}  // namespace
}  // namespace kova::engine
