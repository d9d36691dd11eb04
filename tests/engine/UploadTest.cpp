// Uploads, compared byte for byte.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class UploadTest : public EngineTest {
 protected:
  /// Uploads the file at `file` to `uri`.
  std::string send(const std::string& uri, const std::string& file,
                   const variant::Variant& fields = {}) {
    UploadTask task(uri, file);
    task.setFormFields(fields);
    return run(task);
  }

  /// The body of a form with these parts and the boundary of the request.
  static std::string form(const RawRequest& request,
                          const std::vector<std::pair<std::string, std::string>>& parts) {
    const std::string type = request.header("Content-Type");
    const std::string prefix = "multipart/form-data; boundary=";
    EXPECT_THAT(type, ::testing::StartsWith(prefix));
    const std::string boundary = "--" + type.substr(prefix.size());
    std::string body;
    for (const auto& [name, content] : parts) {
      body += boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
              content + "\r\n";
    }
    return body + boundary + "--\r\n";
  }
  /// Expects that the server received one request with only this file.
  static void expectOnlyFile(const RawServer& server, const std::string& content) {
    ASSERT_EQ(server.requests().size(), 1U);
    const RawRequest request = server.requests().front();
    const std::string body = form(request, {{"payload", content}});
    if (content.size() < 1000) {
      EXPECT_EQ(request.body, body);
    } else {
      EXPECT_TRUE(request.body == body) << "the bodies differ";
    }
  }
};

/// A script that answers the first connection after the head and later ones after the whole
/// request.
RawServer::Script answeringEarly(std::string response) {
  return [response = std::move(response)](Connection& connection) {
    if (connection.number() == 0) {
      connection.readHead();
      connection.send(response);
      connection.awaitClose();
    } else {
      connection.readRequest();
      connection.send(okResponse(""));
    }
  };
}

TEST_F(UploadTest, FormWithoutFieldsHoldsOnlyFile) {
  const std::string content = noise(200'000);
  for (const auto& fields : {variant::Variant(), variant::Variant(variant::Variant::Map{})}) {
    RawServer server(answering(okResponse("")));
    EXPECT_EQ(send(server.uri("/up"), write("file", content), fields), "success");
    expectOnlyFile(server, content);
    const RawRequest request = server.requests().at(0);
    EXPECT_THAT(request.head, ::testing::StartsWith("POST /up HTTP/1.1\r\n"));
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
  }
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(UploadTest, FieldsFollowFileInKeyOrder) {
  RawServer server(answering(okResponse("")));
  variant::Variant fields;
  fields["zeta"] = "";
  fields[""] = "unnamed";
  fields["Alpha"] = "1";
  fields["beta"] = "two words \xc3\xa9 \"quoted\" & more\r\n";
  EXPECT_EQ(send(server.uri(), write("file", "content"), fields), "success");
  const RawRequest request = server.requests().at(0);
  EXPECT_EQ(request.body, form(request, {{"payload", "content"},
                                         {"", "unnamed"},
                                         {"Alpha", "1"},
                                         {"beta", fields["beta"].toText()},
                                         {"zeta", ""}}));
}

TEST_F(UploadTest, NonMapFieldsAreOmitted) {
  RawServer server(answering(okResponse("")));
  variant::Variant list;
  list.pushToArray("text");
  EXPECT_EQ(send(server.uri(), write("file", "content"), list), "success");
  expectOnlyFile(server, "content");
}

// The server never sends "100 Continue", which a large upload asks for.
TEST_F(UploadTest, FilesOfAnySizeArriveComplete) {
  for (const std::size_t size : {0UL, 1UL, 50UL * 1024 * 1024}) {
    SCOPED_TRACE(size);
    RawServer server(answering(okResponse("")));
    const std::string content = noise(size);
    EXPECT_EQ(send(server.uri(), write("file", content)), "success");
    expectOnlyFile(server, content);
    if (size > 1) {
      EXPECT_EQ(server.requests().at(0).header("Expect"), "100-continue");
    }
  }
}

TEST_F(UploadTest, RefusedExpectationEndsUploadWithResponse) {
  RawServer server(
      answeringEarly("HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ(send(server.uri(), write("file", noise(2'000'000))), "success");
  EXPECT_EQ(server.connections(), 1U);
}

TEST_F(UploadTest, GrowingFileIsSentAtInitialSize) {
  RawServer server(answering(okResponse("")));
  const std::string file = write("file", "content");
  UploadTask task(server.uri(), file);
  ASSERT_TRUE(begin(task));
  write("file", "content and more");
  ASSERT_TRUE(turnUntil([&] { return !task.outcome().empty(); }));
  expectOnlyFile(server, "content");
}

TEST_F(UploadTest, UploadCutByServerFails) {
  RawServer server([](Connection& connection) {
    connection.readHead();
    connection.resetOnClose();
  });
  EXPECT_EQ(send(server.uri(), write("file", noise(50UL * 1024 * 1024))), "failure 1 0");
}

/// A script that redirects every request to "/elsewhere" with this status.
RawServer::Script sendingOn(int status) {
  return [status](Connection& connection) {
    while (connection.readRequest()) {
      const bool arrived = connection.request().head.find(" /elsewhere ") != std::string::npos;
      connection.send(arrived ? okResponse("")
                              : "HTTP/1.1 " + std::to_string(status) +
                                    " Moved\r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n");
    }
  };
}

// A file is read only once, so the redirection target waits in vain for the announced body.
TEST_F(UploadTest, SentBodyIsNotResentAfterRedirection) {
  for (const int status : {307, 308}) {
    RawServer server(sendingOn(status));
    UploadTask task(server.uri(), write("file", "content"));
    task.setTimeout(1000);
    EXPECT_EQ(run(task), "failure 5 " + std::to_string(status));
    ASSERT_EQ(server.requests().size(), 1U) << "the second is never complete";
    EXPECT_THAT(server.requests()[0].body, HasSubstr("content"));
  }
}

TEST_F(UploadTest, RedirectionAfterUploadOnlyFetchesResponse) {
  for (const int status : {301, 302, 303}) {
    RawServer server(sendingOn(status));
    EXPECT_EQ(send(server.uri(), write("file", "content")), "success");
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_THAT(server.requests()[0].body, HasSubstr("content"));
    EXPECT_THAT(server.requests()[1].head, ::testing::StartsWith("GET /elsewhere "));
    EXPECT_EQ(server.requests()[1].body, "");
  }
}

TEST_F(UploadTest, UnsentBodyFollowsRedirection) {
  RawServer server(
      answeringEarly("HTTP/1.1 307 Moved\r\nLocation: /elsewhere\r\nConnection: close\r\n"
                     "Content-Length: 0\r\n\r\n"));
  const std::string content = noise(2'000'000);  // announced by "Expect: 100-continue"
  EXPECT_EQ(send(server.uri(), write("file", content)), "success");
  expectOnlyFile(server, content);
}

TEST_F(UploadTest, EarlyResponseSwallowsNoOtherUpload) {
  RawServer server(answeringEarly(okResponse("")));
  EXPECT_EQ(send(server.uri("/1"), write("1", noise(100'000))), "success");
  EXPECT_EQ(send(server.uri("/2"), write("2", "second")), "success");
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_THAT(server.requests()[0].body, HasSubstr("second"));
}

TEST_F(UploadTest, ResponseStatusIsNotJudged) {
  RawServer server(answering("HTTP/1.1 500 No\r\nContent-Length: 4\r\n\r\nsorry"));
  EXPECT_EQ(send(server.uri(), write("file", "content")), "success");
  EXPECT_EQ(readFile(path("file")), "content");
}

}  // namespace
}  // namespace kova::engine
