// Well-formed and malformed responses, as a download task sees them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ResponseTest : public EngineTest {
 protected:
  /// Downloads `uri` into path("file").
  std::string fetch(const std::string& uri, unsigned timeoutMs = 60'000) {
    RecordingTask task(uri, path("file"));
    task.setTimeout(timeoutMs);
    return run(task);
  }
  std::string fetched() const { return readFile(path("file")); }

  void expectStored(const char* response, const std::string& body) {
    SCOPED_TRACE(response);
    RawServer server(once(response));
    EXPECT_EQ(fetch(server.uri()), "success");
    EXPECT_EQ(fetched(), body);
    EXPECT_THAT(logLines(), IsEmpty());
  }
  void expectFailure(const RawServer& server, int curlCode, int httpCode) {
    EXPECT_EQ(fetch(server.uri()), "failure 1 " + std::to_string(httpCode));
    EXPECT_THAT(logLines(), ElementsAre(curlErrorLine(curlCode),
                                        failureLine(server.uri(), "TRANSFER_FAILED(1)", httpCode)));
  }
};

TEST_F(ResponseTest, Status200IsStored) {
  const std::string body = noise(1'000'000);
  RawServer server(answering(okResponse(body)));
  EXPECT_EQ(fetch(server.uri()), "success");
  EXPECT_TRUE(fetched() == body);
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_THAT(server.requests()[0].head, ::testing::StartsWith("GET /file HTTP/1.1\r\n"));
  EXPECT_EQ(server.requests()[0].header("Accept-Encoding"), "");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(ResponseTest, Status204LeavesEmptyFile) {
  expectStored("HTTP/1.1 204 No Content\r\n\r\n", "");
}

TEST_F(ResponseTest, ErrorPagesAreStored) {
  expectStored("HTTP/1.1 404 Not Found\r\nContent-Length: 8\r\n\r\npage 404", "page 404");
  expectStored("HTTP/1.1 500 Broken\r\nContent-Length: 8\r\n\r\npage 500", "page 500");
}

TEST_F(ResponseTest, RedirectionsAreFollowedAndTheirPagesDropped) {
  RawServer server([](Connection& connection) {
    while (connection.readRequest()) {
      const int left = connection.request().head[5] - '0';  // "GET /N"
      connection.send(left == 0 ? okResponse("arrived")
                                : "HTTP/1.1 301 Moved\r\nLocation: /" + std::to_string(left - 1) +
                                      "\r\nContent-Length: 5\r\n\r\nmoved");
    }
  });
  EXPECT_EQ(fetch(server.uri("/9")), "success");
  EXPECT_EQ(fetched(), "arrived");
  EXPECT_EQ(server.requests().size(), 10U);
}

TEST_F(ResponseTest, RedirectionLoopEndsAfterThirty) {
  RawServer server(answering("HTTP/1.1 301 Moved\r\nLocation: /file\r\nContent-Length: 0\r\n\r\n"));
  expectFailure(server, 47, 301);
  EXPECT_EQ(server.requests().size(), 31U);
}

TEST_F(ResponseTest, RedirectionToLocalFileIsRefused) {
  RawServer server(
      answering("HTTP/1.1 302 Found\r\nLocation: file:///etc/passwd\r\nContent-Length: 0\r\n\r\n"));
  expectFailure(server, 1, 302);
  EXPECT_EQ(fetched(), "");
}

TEST_F(ResponseTest, OnlyHttpUrisAreFetched) {
  EXPECT_EQ(fetch("file:///etc/passwd"), "failure 1 0");
  EXPECT_EQ(fetch("ftp://127.0.0.1/file"), "failure 1 0");
  EXPECT_THAT(
      logLines(),
      ElementsAre(curlErrorLine(1), failureLine("file:///etc/passwd", "TRANSFER_FAILED(1)", 0),
                  curlErrorLine(1), failureLine("ftp://127.0.0.1/file", "TRANSFER_FAILED(1)", 0)));
  EXPECT_EQ(fetched(), "");
}

TEST_F(ResponseTest, BodyEndsAsItsHeadersSay) {
  expectStored(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "5\r\nchunk\r\n1;extension=1\r\n \r\n4\r\nbody\r\n0\r\nTrailer: 1\r\n\r\n",
      "chunk body");
  expectStored("HTTP/1.1 200 OK\r\n\r\nto the end", "to the end");
  expectStored("HTTP/1.0 200 OK\r\n\r\nold", "old");
  expectStored("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody and more", "body");
}

TEST_F(ResponseTest, IncompleteResponseFails) {
  const struct {
    const char* response;
    int curlCode;
    int httpCode;
    const char* stored;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 400\r\n\r\nbody", 18, 200, "body"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\nchun", 18, 200, "chun"},
      {"", 52, 0, ""},
      {"SSH-2.0-OpenSSH_9.2\r\n", 1, 0, ""},
  };
  for (const auto& [response, curlCode, httpCode, stored] : cases) {
    SCOPED_TRACE(response);
    fakes::reset();
    expectFailure(RawServer(once(response)), curlCode, httpCode);
    EXPECT_EQ(fetched(), stored);
  }
}

TEST_F(ResponseTest, CredentialsOfUriAreSent) {
  RawServer server(answering(okResponse("body")));
  EXPECT_EQ(fetch("http://user:secret@" + server.uri().substr(7)), "success");
  EXPECT_EQ(server.requests().at(0).header("Authorization"), "Basic dXNlcjpzZWNyZXQ=");
}

TEST_F(ResponseTest, CompressedBodyIsStoredAsReceived) {
  const std::string zipped = "\x1f\x8b\x08" + noise(500);
  RawServer server(answering("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                             std::to_string(zipped.size()) + "\r\n\r\n" + zipped));
  EXPECT_EQ(fetch(server.uri()), "success");
  EXPECT_EQ(fetched(), zipped);
}

TEST_F(ResponseTest, ConnectionResetInBodyFails) {
  // Reset only once the first half has been received: a reset may drop data in flight.
  RawServer server([this](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nhalf");
    EXPECT_TRUE(eventually([this] { return fetched() == "half"; }));
    connection.resetOnClose();
  });
  expectFailure(server, 56, 200);
}

TEST_F(ResponseTest, TricklingServerTimesOut) {
  RawServer server([](Connection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n");
    connection.trickle(std::string(100'000, 'x'), 50);
  });
  EXPECT_EQ(fetch(server.uri(), 1000), "failure 5 200");
  EXPECT_THAT(logLines(), ElementsAre(failureLine(server.uri(), "TRANSFER_TIMEOUT(5)", 200)));
  EXPECT_THAT(fetched(), ::testing::StartsWith("xxx"));
}

TEST_F(ResponseTest, EachTransferHasItsOwnConnection) {
  RawServer server(answering(okResponse("body")));
  EXPECT_EQ(fetch(server.uri("/1")), "success");
  EXPECT_EQ(fetch(server.uri("/2")), "success");
  EXPECT_EQ(server.connections(), 2U);
  EXPECT_EQ(server.requests().size(), 2U);
}

}  // namespace
}  // namespace kova::engine
