#include "basehttp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "CurlFaults.h"
#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class BaseHttpTest : public EngineTest {
 protected:
  bool finish(std::size_t completions = 1) {
    return serviceUntil(http_, [&] { return http_.completions.size() >= completions; });
  }

  MemoryHttp http_;
};

TEST_F(BaseHttpTest, InitFailsWithoutMultiHandle) {
  curlFaults().multiInit = true;
  EXPECT_FALSE(http_.Init());
  EXPECT_THAT(logLines(), ElementsAre("3 basehttp.Init: Unable to initiate CURLM"));
}

TEST_F(BaseHttpTest, EmptyUriIsRefused) {
  ASSERT_TRUE(http_.Init());
  EXPECT_FALSE(http_.start(""));
  EXPECT_THAT(logLines(), ElementsAre("3 basehttp.RegisterRequest: uri must be set"));
  EXPECT_EQ(http_.cause(), "there is no URI");
}

TEST_F(BaseHttpTest, HandleThatCannotBeAddedIsNotRegistered) {
  ASSERT_TRUE(http_.Init());
  curlFaults().addHandle = CURLM_OUT_OF_MEMORY;
  EXPECT_FALSE(http_.start("http://127.0.0.1:9/x"));
  EXPECT_THAT(logLines(),
              ElementsAre("3 basehttp.RegisterRequest: unable to setup CURLM: 3 (Out of memory)"));
  EXPECT_TRUE(http_.CancelTransfer("http://127.0.0.1:9/x"));
  EXPECT_THAT(http_.completions, IsEmpty());
}

TEST_F(BaseHttpTest, ReadErrorOfLibcurlIsDiskFailure) {
  RawServer server(answering(okResponse("")));
  curlFaults().result = CURLE_READ_ERROR;
  ASSERT_TRUE(http_.Init() && http_.start(server.uri(), false));
  ASSERT_TRUE(finish());
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 2 200"));
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(BaseHttpTest, ReadBeyondBufferEndsTransfer) {
  RawServer server(answering(okResponse("")));
  http_.upload = "file";
  http_.excess = 1;
  ASSERT_TRUE(http_.Init() && http_.start(server.uri(), false));
  ASSERT_TRUE(finish());
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 1 0"));
  EXPECT_THAT(logLines(), ElementsAre(curlErrorLine(42)));
}

TEST_F(BaseHttpTest, UnreachableServersAreFailures) {
  ASSERT_TRUE(http_.Init() && http_.start("http://127.0.0.1:1/x"));
  ASSERT_TRUE(finish());
  ASSERT_TRUE(http_.start("http://no-such-host.invalid/x"));
  ASSERT_TRUE(finish(2));
  EXPECT_THAT(http_.completions,
              ElementsAre("http://127.0.0.1:1/x 1 0", "http://no-such-host.invalid/x 1 0"));
  EXPECT_THAT(logLines(), ElementsAre(curlErrorLine(7), curlErrorLine(6)));
}

TEST_F(BaseHttpTest, CancelReportsBeforeItReturns) {
  RawServer server(stalling("HTTP/1.1 206 Partial Content\r\nContent-Length: 10\r\n\r\nhalf."));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri("/running")));
  ASSERT_TRUE(serviceUntil(http_, [&] { return !http_.bodies.empty(); }));
  EXPECT_TRUE(http_.CancelTransfer(server.uri("/running")));
  EXPECT_THAT(http_.completions, ElementsAre(server.uri("/running") + " 3 206"));
  EXPECT_TRUE(http_.CancelTransfer(server.uri("/running")));
  EXPECT_EQ(http_.completions.size(), 1U);
  EXPECT_THAT(curlFaults().released, ElementsAre("easy"));
}

TEST_F(BaseHttpTest, CancelledTransferIsForgottenBeforeReport) {
  RawServer server(stalling());
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  unsigned reports = 0;
  http_.onCompletion = [&] {
    if (++reports == 1) {
      EXPECT_TRUE(http_.CancelTransfer(server.uri()));
    }
  };
  EXPECT_TRUE(http_.CancelTransfer(server.uri()));
  EXPECT_EQ(reports, 1U);
}

TEST_F(BaseHttpTest, CancelBeforeFirstStepHasNoHttpCode) {
  RawServer server(stalling());
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  EXPECT_TRUE(http_.CancelTransfer(server.uri()));
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 3 0"));
  EXPECT_TRUE(http_.Service(0));
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(BaseHttpTest, FailedCancelLeavesTransferRunning) {
  RawServer server(answering("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\npage"));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  curlFaults().removeHandle = CURLM_BAD_EASY_HANDLE;
  EXPECT_FALSE(http_.CancelTransfer(server.uri()));
  curlFaults() = {};
  EXPECT_THAT(logLines(), ElementsAre("3 basehttp.CancelTransfer: curl_multi_remove_handle failed: "
                                      "2 (Invalid easy handle)"));
  ASSERT_TRUE(finish());
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 0 404")) << "not judged";
}

TEST_F(BaseHttpTest, CancelWithoutHttpCodeFailsAndMayBeRetried) {
  RawServer server(stalling());
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  curlFaults().info = CURLINFO_RESPONSE_CODE;
  EXPECT_FALSE(http_.CancelTransfer(server.uri()));
  EXPECT_THAT(http_.completions, IsEmpty());
  EXPECT_THAT(logLines(), ElementsAre("3 basehttp.CancelTransfer: curl_easy_getinfo failed: 48 (An "
                                      "unknown option was passed in to libcurl)"));
  curlFaults() = {};
  EXPECT_TRUE(http_.CancelTransfer(server.uri()));
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 3 0"));
}

TEST_F(BaseHttpTest, FailedStepLeavesTransfersForNextStep) {
  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  curlFaults().wait = CURLM_INTERNAL_ERROR;
  EXPECT_FALSE(http_.Service(0));
  curlFaults() = {};
  curlFaults().perform = CURLM_OUT_OF_MEMORY;
  EXPECT_FALSE(http_.Service(0));
  curlFaults() = {};
  EXPECT_THAT(logLines(),
              ElementsAre("3 basehttp.Service: curl_multi_wait failed: 4 (Internal error)",
                          "3 basehttp.Service: curl_multi_perform failed: 3 (Out of memory)"));
  ASSERT_TRUE(finish());
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 0 200"));
}

TEST_F(BaseHttpTest, UnreadableEndFailsStep) {
  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http_.Init());
  const std::string failed =
      "3 basehttp.Service: curl_easy_getinfo failed: 48 (An unknown option "
      "was passed in to libcurl)";
  const std::function<void()> faults[] = {
      [] { curlFaults().info = CURLINFO_PRIVATE; },
      [] { curlFaults().info = CURLINFO_RESPONSE_CODE; },
      [] { curlFaults().privateIsNull = true; },
  };
  unsigned number = 0;
  for (const auto& fault : faults) {
    curlFaults() = {};
    fault();
    ASSERT_TRUE(http_.start(server.uri("/" + std::to_string(number++))));
    EXPECT_TRUE(eventually([&] { return !http_.Service(1); }));
  }
  EXPECT_THAT(logLines(),
              ElementsAre(failed, failed, "3 basehttp.Service: Unable to retrieve the context"));
  EXPECT_THAT(http_.completions, IsEmpty());
}

TEST_F(BaseHttpTest, UnreadableEndLeavesOthersForNextStep) {
  std::atomic<bool> go = false;
  std::atomic<int> sent = 0;
  RawServer server([&](Connection& connection) {
    connection.readRequest();
    EXPECT_TRUE(eventually([&] { return go.load(); }));
    connection.send(okResponse("body"));
    ++sent;
    connection.awaitClose();
  });
  ASSERT_TRUE(http_.Init() && http_.start(server.uri("/1")) && http_.start(server.uri("/2")));
  ASSERT_TRUE(serviceUntil(http_, [&] { return server.requests().size() == 2; }));
  go = true;
  ASSERT_TRUE(eventually([&] { return sent == 2; }));

  curlFaults().info = CURLINFO_RESPONSE_CODE;
  EXPECT_TRUE(eventually([&] { return !http_.Service(1); }));
  EXPECT_EQ(curlFaults().asked(CURLINFO_RESPONSE_CODE), 1U);
  curlFaults() = {};
  ASSERT_TRUE(finish());
  EXPECT_EQ(http_.completions.size(), 1U);
}

TEST_F(BaseHttpTest, TwoTransfersOfOneUriBothReport) {
  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()) && http_.start(server.uri()));
  ASSERT_TRUE(eventually([&] {
    EXPECT_TRUE(http_.Service(10));
    return http_.completions.size() == 2;
  }));
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 0 200", server.uri() + " 0 200"));
  EXPECT_THAT(curlFaults().released, ElementsAre("easy", "easy"));
}

TEST_F(BaseHttpTest, DriverReleasesMultiHandleBeforeTransfers) {
  {
    MemoryHttp http;
    ASSERT_TRUE(http.Init() && http.start("http://127.0.0.1:9/1") &&
                http.start("http://127.0.0.1:9/2"));
  }
  EXPECT_THAT(curlFaults().released, ElementsAre("multi", "easy", "easy", "timer"));
}

TEST_F(BaseHttpTest, StepWaitsOnceUpToItsLimit) {
  ASSERT_TRUE(http_.Init());
  EXPECT_TRUE(http_.Service(37));
  EXPECT_TRUE(service().service(12));
  EXPECT_THAT(curlFaults().waits, ElementsAre(37, 12));
}

// A hundred steps, because a single step that waits a few milliseconds is lost in the noise.
TEST_F(BaseHttpTest, IdleStepDoesNotWait) {
  RawServer server(stalling());
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return server.requests().size() == 1; }));
  const auto start = std::chrono::steady_clock::now();
  for (int step = 0; step < 100; ++step) {
    EXPECT_TRUE(http_.Service(0));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

}  // namespace
}  // namespace kova::engine
