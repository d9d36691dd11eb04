#include "TransferService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "CurlFaults.h"
#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TransferServiceTest : public EngineTest {
 protected:
  /// Takes requests and never answers.
  static void silent(Connection& connection) {
    connection.readRequest();
    connection.awaitClose();
  }
  bool gone(const RecordingTask& task) {
    return turnUntil([&] { return !service().existsUri(task.uri()); });
  }
  static void passDeadline(const RecordingTask& task) {
    fakes::platform().nowMs += task.timeout() + 1;
  }
  static std::string timeout(const std::string& phase, const RecordingTask& task) {
    return "4 TransferService.service: Timeout " + phase + ", task=task, uri=" + task.uri();
  }
  static std::string failed(const RecordingTask& task, const std::string& reason, int httpCode) {
    return "4 TransferService.cancel: Transfer task failed, name=task, uri=" + task.uri() +
           ", reason=" + reason + ", httpCode=" + std::to_string(httpCode);
  }
};

TEST_F(TransferServiceTest, ADownloadRunsThroughItsHooks) {
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

TEST_F(TransferServiceTest, ATaskMayRunAgain) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  EXPECT_EQ(run(task), "success");
  task.events.clear();
  EXPECT_EQ(run(task), "success");
  EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(TransferServiceTest, ATaskOfATakenUriIsRefusedAndTheRunningOneGoesOn) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  RecordingTask second(server.uri(), path("second"));
  ASSERT_TRUE(service().add(&task));
  EXPECT_FALSE(service().add(&second));
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 TransferService.add: Task task busy, failed to start, uri=" + server.uri()));
  EXPECT_THAT(second.events, IsEmpty());
  ASSERT_TRUE(gone(task));
  EXPECT_EQ(task.outcome(), "success");
}

TEST_F(TransferServiceTest, AUriIsTakenUntilTheEndOfTheTurn) {
  RawServer server(answering(okResponse("body")));
  RecordingTask first(server.uri("/1"), path("1"));
  RecordingTask second(server.uri("/2"), path("2"));
  first.done = false;
  second.done = false;
  ASSERT_TRUE(service().add(&first));
  ASSERT_TRUE(service().add(&second));
  ASSERT_TRUE(turnUntil([&] { return first.finalizing() && second.finalizing(); }));

  // The turn goes by URI: the first task is done with by the time the second is asked.
  RecordingTask again(server.uri("/1"), path("again"));
  bool added = true;
  second.duringSuccess = [&] { added = service().add(&again); };
  first.done = true;
  service().service(0);
  EXPECT_FALSE(added);
  second.duringSuccess = nullptr;
  EXPECT_FALSE(service().existsUri(first.uri()));
  EXPECT_TRUE(service().add(&again));
}

TEST_F(TransferServiceTest, ATaskThatRefusesToStartIsNotAdded) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  task.checkResult = false;
  EXPECT_FALSE(service().add(&task));
  EXPECT_THAT(logLines(), ElementsAre("3 BaseTransferTask.start: Task-specific checks failed",
                                      "3 TransferService.add: Failed to start task, task=task, "
                                      "uri=http://127.0.0.1:1/x"));
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_FALSE(service().existsUri("http://127.0.0.1:1/x"));
}

TEST_F(TransferServiceTest, NamesAreNotCheckedByAdd) {
  RecordingTask first("http://127.0.0.1:1/1", path("1"));
  RecordingTask second("http://127.0.0.1:1/2", path("2"));
  EXPECT_TRUE(service().add(&first));
  EXPECT_TRUE(service().add(&second));
}

TEST_F(TransferServiceTest, AfterASuccessTheNameIsFreeAndTheUriTakenUntilTheTaskIsDone) {
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

TEST_F(TransferServiceTest, AnErrorPageIsASuccess) {
  RawServer server(answering("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone"));
  RecordingTask task(server.uri(), path("file"));
  EXPECT_EQ(run(task), "success");
  EXPECT_EQ(readFile(path("file")), "gone");
}

TEST_F(TransferServiceTest, AnUploadIsPreparedUntilItIsReady) {
  RawServer server(answering(okResponse("")));
  RecordingTask task(server.uri(), "");
  task.setKind(false);
  task.prepared = false;
  ASSERT_TRUE(service().add(&task));
  service().service(0);
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

TEST_F(TransferServiceTest, AnUploadMayTurnIntoADownload) {
  RawServer server(answering(okResponse("body")));
  RecordingTask task(server.uri(), path("file"));
  task.setKind(false);
  task.duringPrepare = [&] { task.setKind(true); };
  EXPECT_EQ(run(task), "success");
  EXPECT_THAT(server.requests().at(0).head, ::testing::StartsWith("GET "));
  EXPECT_EQ(readFile(path("file")), "body");
}

TEST_F(TransferServiceTest, AnUploadThatIsNeverReadyTimesOutWithoutARequest) {
  RawServer server(answering(okResponse("")));
  RecordingTask task(server.uri(), "");
  task.setKind(false);
  task.prepared = false;
  ASSERT_TRUE(service().add(&task));
  service().service(0);
  passDeadline(task);
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 5 0");
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_FALSE(service().existsName("task"));
  EXPECT_THAT(logLines(), ElementsAre(timeout("preparing files for transfer", task)));
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(TransferServiceTest, TheDeadlineItselfIsStillInTime) {
  RecordingTask task("http://127.0.0.1:1/x", "");
  task.setKind(false);
  task.prepared = false;
  ASSERT_TRUE(service().add(&task));
  fakes::platform().nowMs += task.timeout();
  service().service(0);
  EXPECT_EQ(task.outcome(), "");
  fakes::platform().nowMs += 1;
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 5 0");
}

TEST_F(TransferServiceTest, ATransferThatIsTooLateIsCancelledAndReportedOnce) {
  RawServer server(silent);
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return server.requests().size() == 1; }));
  passDeadline(task);
  service().service(0);
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 5 0");
  EXPECT_THAT(logLines(), ElementsAre(timeout("in transfer", task)));

  // The engine has let go of the URI and the file.
  RecordingTask next(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&next));
  service().service(0);
  EXPECT_TRUE(next.inTransfer());
}

TEST_F(TransferServiceTest, ATaskThatIsNeverDoneTimesOut) {
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

TEST_F(TransferServiceTest, AnAnnouncedSizeOverTheLimitStopsWithNothingWritten) {
  RawServer server(answering(okResponse(noise(1001))));
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(1000);
  EXPECT_EQ(run(task), "failure 6 0");
  EXPECT_THAT(logLines(), ElementsAre(failed(task, "TRANSFER_TOOLARGE(6)", 0)));
  EXPECT_EQ(readFile(path("file")), "");
}

TEST_F(TransferServiceTest, AnAnnouncedSizeAtTheLimitPasses) {
  RawServer server(answering(okResponse(noise(1000))));
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(1000);
  EXPECT_EQ(run(task), "success");
  EXPECT_EQ(readFile(path("file")), noise(1000));
}

TEST_F(TransferServiceTest, AnUnknownSizeStopsAtTheFirstChunkBeyondTheLimit) {
  const std::string body = noise(1'000'000);
  RawServer server([&](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\n\r\n" + body);
  });
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(100'000);
  EXPECT_EQ(run(task), "failure 6 0");
  EXPECT_THAT(logLines(), ElementsAre(failed(task, "TRANSFER_TOOLARGE(6)", 0)));
  const std::string written = readFile(path("file"));
  EXPECT_GT(written.size(), 100'000U);
  EXPECT_LE(written.size(), 100'000U + CURL_MAX_WRITE_SIZE);
  EXPECT_TRUE(body.starts_with(written));
}

TEST_F(TransferServiceTest, AnUnknownSizeThatReachesTheLimitInOneChunkPasses) {
  RawServer server([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\n\r\n" + noise(1000));
  });
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(1);
  EXPECT_EQ(run(task), "success");
  EXPECT_EQ(readFile(path("file")).size(), 1000U);
}

TEST_F(TransferServiceTest, ChunksOfATaskThatIsBeingLetGoAreDropped) {
  RawServer server(silent);
  RecordingTask task(server.uri(), path("file"));
  task.setMaxSz(3);
  ASSERT_TRUE(service().add(&task));
  service().service(0);
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

TEST_F(TransferServiceTest, UnknownUrisAreLogged) {
  unsigned char byte = 0;
  EXPECT_FALSE(service().SignalBytesAvailable("u", &byte, 1, 0, 1));
  service().SignalTransferCompleted("u", ctlserver::TRANSFER_OK, 200);
  service().SignalTransferCompleted("u", ctlserver::TRANSFER_CANCELLED, 0);
  EXPECT_THAT(logLines(),
              ElementsAre("3 TransferService.SignalBytesAvailable: Failed to resolve task by uri=u",
                          "4 multihttp.SignalTransferCompleted: Uri not tracked, uri=u",
                          "3 TransferService.cancel: Failed to resolve task by uri=u",
                          "4 multihttp.SignalTransferCompleted: Uri not tracked, uri=u"));
}

TEST_F(TransferServiceTest, AFileThatCannotBeOpenedFailsTheTask) {
  RecordingTask task("http://127.0.0.1:1/x", path("missing/file"));
  ASSERT_TRUE(service().add(&task));
  service().service(0);
  EXPECT_EQ(task.outcome(), "failure 1 0");
  EXPECT_FALSE(service().existsUri(task.uri()));
  EXPECT_THAT(logLines(),
              ElementsAre("4 TransferService.service: Failed to register transfer, task=task, "
                          "uri=http://127.0.0.1:1/x"));
}

TEST_F(TransferServiceTest, AUriThatTheEngineRefusedStaysRefused) {
  RawServer server(answering(okResponse("")));
  const std::string file = write("file", "content");
  RecordingTask task(server.uri(), file);
  variant::Variant fields;
  fields["number"] = 1;
  task.setKind(false).setFormFields(fields);
  EXPECT_EQ(run(task), "failure 1 0");
  fakes::reset();

  RecordingTask next(server.uri(), path("other"));
  EXPECT_EQ(run(next), "failure 1 0");
  EXPECT_THAT(logLines(),
              ElementsAre("3 multihttp.RegisterRequest: File or URI already in progress, uri=" +
                              server.uri() + ", path=" + path("other"),
                          "4 TransferService.service: Failed to register transfer, task=task, "
                          "uri=" +
                              server.uri()));
  RecordingTask samePath(server.uri("/new"), file);
  samePath.setKind(false);
  EXPECT_EQ(run(samePath), "failure 1 0");
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(TransferServiceTest, AFullDiskFailsTheTask) {
  RawServer server(answering(okResponse(noise(100'000))));
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&task));
  service().service(0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  const rlimit full{20'000, saved.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const bool ended = gone(task);
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);

  ASSERT_TRUE(ended);
  EXPECT_EQ(task.outcome(), "failure 2 200");
  EXPECT_THAT(logLines(), ElementsAre(failed(task, "DISK_IO_FAILED(2)", 200)));
}

TEST_F(TransferServiceTest, ACancelThatFailsStillRemovesTheTask) {
  RawServer server(silent);
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&task));
  service().service(0);
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

TEST_F(TransferServiceTest, AnEngineThatFailsDoesNotKeepDeadlinesFromPassing) {
  RecordingTask task("http://127.0.0.1:1/x", path("file"));
  ASSERT_TRUE(service().add(&task));
  passDeadline(task);
  curlFaults().wait = CURLM_INTERNAL_ERROR;
  EXPECT_FALSE(service().service(0));
  EXPECT_EQ(task.outcome(), "failure 5 0");
}

TEST_F(TransferServiceTest, OneFailureLeavesOtherTasksAlone) {
  RawServer server(answering(okResponse("body")));
  RecordingTask good(server.uri(), path("good"));
  RecordingTask bad("http://127.0.0.1:1/x", path("bad"));
  ASSERT_TRUE(service().add(&good));
  ASSERT_TRUE(service().add(&bad));
  ASSERT_TRUE(gone(good) && gone(bad));
  EXPECT_EQ(good.outcome(), "success");
  EXPECT_EQ(bad.outcome(), "failure 1 0");
}

TEST_F(TransferServiceTest, WithoutAMultiHandleInitFails) {
  curlFaults().multiInit = true;
  ctlserver::TransferService other;
  EXPECT_FALSE(other.init());
}

TEST_F(TransferServiceTest, DestroyingTheServiceLeavesItsTasksAlone) {
  RawServer server(silent);
  RecordingTask task(server.uri(), path("file"));
  ASSERT_TRUE(service().add(&task));
  ASSERT_TRUE(turnUntil([&] { return server.requests().size() == 1; }));
  endService();
  EXPECT_EQ(task.outcome(), "");
}

}  // namespace
}  // namespace kova::engine
