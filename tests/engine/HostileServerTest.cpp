// Servers that send endlessly or redirect the camera, and what a transfer logs about them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>

#include "CurlFaults.h"
#include "Engine.h"
#include "RawServer.h"
#include "ReceiveBuffer.h"

namespace kova::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Resident memory of this process in KiB.
long resident() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::stol(line.substr(6));
    }
  }
  return 0;
}

/// A script that reads a request, answers with `begun`, and repeats `more` up to 50 MB or until the
/// peer closes.
RawServer::Script endless(std::string begun, std::string more) {
  return [begun = std::move(begun), more = std::move(more)](Connection& connection) {
    connection.readRequest();
    connection.send(begun);
    std::string many;
    while (many.size() < 1'000'000) {
      many += more;
    }
    for (int round = 0; round < 50; ++round) {
      connection.send(many);
    }
  };
}

class HostileServerTest : public EngineTest {
 protected:
  std::string move(bool download, const std::string& uri) {
    RecordingTask task(uri, download ? path("file") : write("file", "content"));
    task.setKind(download);
    return run(task);
  }
  /// Expects that the transfer fails soon, logs `line`, and uses little memory.
  void expectBounded(bool download, const RawServer& server, const std::string& line) {
    const long before = resident();
    EXPECT_TRUE(move(download, server.uri()).starts_with("failure 1 "));
    EXPECT_LT(resident() - before, 20'000);
    EXPECT_THAT(logLines(), ElementsAre("4 curlcontext." + line + ", uri=" + server.uri(),
                                        ::testing::HasSubstr("Transfer task failed")));
  }
};

TEST_F(HostileServerTest, HeadersShareOneBudget) {
  const std::string longLine = "X-Long: " + std::string(1000, 'x') + "\r\n";
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const struct {
    const char* what;
    bool download;
    RawServer::Script script;
  } cases[] = {
      {"trailers", true, endless(chunked + "4\r\nbody\r\n0\r\n", longLine)},
      {"trailers of the answer to an upload", false, endless(chunked + "0\r\n", longLine)},
      {"interim responses", true,
       endless("", "HTTP/1.1 103 Early Hints\r\nLink: </style>\r\n\r\n")},
      {"redirections", true,
       answering("HTTP/1.1 301 Moved\r\nLocation: /file\r\nX-Long: " + std::string(10'000, 'x') +
                 "\r\nContent-Length: 0\r\n\r\n")},
  };
  for (const auto& [what, download, script] : cases) {
    SCOPED_TRACE(what);
    fakes::reset();
    expectBounded(download, RawServer(script), "HandleHeader: The headers exceed 65536 bytes");
  }
}

TEST_F(HostileServerTest, HeadersWithinBudgetAreAccepted) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nX-Long: ";
  head += std::string(65'536 - head.size() - 4, 'x') + "\r\n\r\n";
  RawServer server(answering(head + "body"));
  EXPECT_EQ(move(true, server.uri()), "success");
  EXPECT_EQ(readFile(path("file")), "body");
}

TEST_F(HostileServerTest, EndlessResponseEndsUpload) {
  RawServer server(endless("HTTP/1.1 200 OK\r\n\r\n", std::string(1000, 'x')));
  expectBounded(false, server, "HandleReceived: The answer to the upload exceeds 16777216 bytes");
}

TEST_F(HostileServerTest, LongResponseToUploadIsAccepted) {
  RawServer server(answering(okResponse(std::string(16'777'216, 'x'))));
  EXPECT_EQ(move(false, server.uri()), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(HostileServerTest, RefusedUploadsAreLoggedWithoutUserInformation) {
  RawServer server(answering("HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n"));
  const std::string plain = server.uri("/up@1?to=a@b");
  const std::string host = plain.substr(7);
  const std::string refused =
      "4 TransferService.SignalTransferCompleted: The server refused the upload, name=task, uri=";
  for (const auto& [uri, shown] : {std::pair<std::string, std::string>{plain, plain},
                                   {"http://me:secret@" + host, plain},
                                   {"me:secret@" + host, host}}) {
    fakes::reset();
    EXPECT_EQ(move(false, uri), "success");
    EXPECT_THAT(logLines(), ElementsAre(refused + shown + ", httpCode=403"));
  }
}

TEST_F(HostileServerTest, OnlyRefusedUploadsAreLogged) {
  RawServer gone(answering("HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(move(true, gone.uri()), "success");
  RawServer odd(answering("HTTP/1.1 399 Odd\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(move(false, odd.uri()), "success");
  EXPECT_THAT(logLines(), IsEmpty());
  RawServer least(answering("HTTP/1.1 400 No\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(move(false, least.uri()), "success");
  EXPECT_EQ(logLines().size(), 1U);
}

TEST_F(HostileServerTest, ProxiesFromEnvironmentAreIgnored) {
  RawServer server(answering(okResponse("body")));
  RawServer proxy(answering(okResponse("other")));
  setenv("http_proxy", proxy.uri("").c_str(), 1);
  EXPECT_EQ(move(true, server.uri()), "success");
  unsetenv("http_proxy");
  EXPECT_EQ(readFile(path("file")), "body");
  EXPECT_EQ(proxy.connections(), 0U);
}

TEST_F(HostileServerTest, TimeOutBeyondLibcurlRangeRunsInParts) {
  RawServer server(answering(okResponse("body")));
  for (const std::uint32_t timeout : {4'294'967'295U, 2'147'484'000U}) {
    RecordingTask task(server.uri(), path("file"));
    task.setTimeout(timeout);
    EXPECT_EQ(run(task), "success") << timeout;
  }
  EXPECT_EQ(server.connections(), 2U);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(HostileServerTest, ReceiveBufferIsForcedOrLeftAlone) {
  RawServer server(answering(okResponse("body")));
  EXPECT_EQ(move(true, server.uri()), "success");
  EXPECT_THAT(curlFaults().socketOptions, ElementsAre("RCVBUFFORCE=4194304"));

  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  int before = 0;
  int after = 0;
  socklen_t size = sizeof before;
  getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &before, &size);
  const int asked = ctlserver::kReceiveBufferSize / 2;
  const bool mayForce = setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &asked, sizeof asked) == 0;
  close(fd);
  const int other = socket(AF_INET, SOCK_STREAM, 0);
  ctlserver::widenReceiveBuffer(other);
  getsockopt(other, SOL_SOCKET, SO_RCVBUF, &after, &size);
  close(other);
  EXPECT_EQ(after, mayForce ? ctlserver::kReceiveBufferSize : before);
}

TEST_F(HostileServerTest, ShutdownClosesDownloadsBeforeUploads) {
  UploadTask up("http://127.0.0.1:1/a", write("a", "content"));
  RecordingTask down("http://127.0.0.1:1/b", path("b"));
  ASSERT_TRUE(service().add(&up) && begin(down));
  const int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(inotify_add_watch(watch, path("").c_str(), IN_CLOSE), 0);
  endService();
  alignas(inotify_event) std::array<char, 4096> events;
  const ssize_t size = read(watch, events.data(), events.size());
  close(watch);
  std::string closed;
  for (ssize_t at = 0; at < size;) {
    const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
    closed += event->name;
    at += static_cast<ssize_t>(sizeof *event + event->len);
  }
  EXPECT_EQ(closed, "ba");
}

}  // namespace
}  // namespace kova::engine
