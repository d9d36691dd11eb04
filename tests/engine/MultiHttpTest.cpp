#include "multihttp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ctlserver::MultiHTTP;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Records completions after MultiHTTP has handled them.
class ObservedMultiHttp : public MultiHTTP {
 public:
  void SignalTransferCompleted(const std::string& uri, ctlserver::TransferStatus status,
                               int httpCode) override {
    MultiHTTP::SignalTransferCompleted(uri, status, httpCode);
    completions.push_back(uri + " " + std::to_string(status) + " " + std::to_string(httpCode));
  }
  bool start(bool download, const std::string& uri, const std::string& path,
             const variant::Variant& fields = {}) {
    return RegisterRequest(download, uri, path, fields, 0, "", "", "");
  }
  std::vector<std::string> completions;
};

class MultiHttpTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    ASSERT_TRUE(http_.Init());
  }
  bool finish(std::size_t completions = 1) {
    return serviceUntil(http_, [&] { return http_.completions.size() >= completions; });
  }
  static std::string inProgress(const std::string& uri, const std::string& path) {
    return "3 multihttp.RegisterRequest: File or URI already in progress, uri=" + uri +
           ", path=" + path;
  }

  ObservedMultiHttp http_;
};

constexpr char kNobody[] = "http://127.0.0.1:1/x";

TEST_F(MultiHttpTest, EmptyUriOrPathIsRefused) {
  EXPECT_FALSE(http_.start(true, "", "/tmp/x"));
  EXPECT_FALSE(http_.start(false, kNobody, ""));
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 multihttp.RegisterRequest: Invalid input, uri=, path=/tmp/x",
                  "3 multihttp.RegisterRequest: Invalid input, uri=http://127.0.0.1:1/x, path="));
}

TEST_F(MultiHttpTest, SecondTransferOfUriIsRefusedAndFirstGoesOn) {
  RawServer server(answering(okResponse("body")));
  ASSERT_TRUE(http_.start(true, server.uri(), path("first")));
  EXPECT_FALSE(http_.start(true, server.uri(), path("second")));
  EXPECT_FALSE(http_.start(false, server.uri(), write("third", "")));
  EXPECT_THAT(logLines(), ElementsAre(inProgress(server.uri(), path("second")),
                                      inProgress(server.uri(), path("third"))));
  EXPECT_NE(access(path("second").c_str(), F_OK), 0);
  ASSERT_TRUE(finish());
  EXPECT_EQ(readFile(path("first")), "body");
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(MultiHttpTest, TwoTransfersOfPathInOneDirectionAreRefused) {
  const std::string file = write("file", "");
  ASSERT_TRUE(http_.start(true, "http://127.0.0.1:1/1", file));
  EXPECT_FALSE(http_.start(true, "http://127.0.0.1:1/2", file));
  ASSERT_TRUE(http_.start(false, "http://127.0.0.1:1/3", file));
  EXPECT_FALSE(http_.start(false, "http://127.0.0.1:1/4", file));
  EXPECT_THAT(logLines(), ElementsAre(inProgress("http://127.0.0.1:1/2", file),
                                      inProgress("http://127.0.0.1:1/4", file)));
}

TEST_F(MultiHttpTest, UnopenableFileLeavesNothingBehind) {
  RawServer server(answering(okResponse("body")));
  EXPECT_FALSE(http_.start(true, server.uri(), path("missing/file")));
  EXPECT_FALSE(http_.start(false, server.uri(), path("missing")));
  EXPECT_THAT(logLines(), IsEmpty());
  ASSERT_EQ(mkdir(path("missing").c_str(), 0755), 0);
  EXPECT_TRUE(http_.start(true, server.uri(), path("missing/file")));
  ASSERT_TRUE(finish());
  EXPECT_EQ(server.connections(), 1U);
}

TEST_F(MultiHttpTest, TransferRefusedByEngineStaysInProgress) {
  variant::Variant fields;
  fields["number"] = 1;
  const std::string file = write("file", "content");
  EXPECT_FALSE(http_.start(false, kNobody, file, fields));
  fakes::reset();
  EXPECT_FALSE(http_.start(false, kNobody, write("other", "")));
  EXPECT_FALSE(http_.start(false, "http://127.0.0.1:1/other", file));
  EXPECT_THAT(logLines(), ElementsAre(inProgress(kNobody, path("other")),
                                      inProgress("http://127.0.0.1:1/other", file)));
  EXPECT_TRUE(http_.start(true, "http://127.0.0.1:1/download", file));

  http_.SignalTransferCompleted(kNobody, ctlserver::TRANSFER_FAILED, 0);
  EXPECT_TRUE(http_.start(false, kNobody, file));
}

TEST_F(MultiHttpTest, NulIsRefusedAndHoldsNeitherUriNorFile) {
  RawServer server(answering(okResponse("")));
  const std::string file = write("file", "content");
  const std::string uri = server.uri("/up");
  const std::string cut("cut\0short", 9);
  const auto expectRefused = [&](bool download, const std::string& at,
                                 const variant::Variant::Map& fields, const std::string& line) {
    fakes::reset();
    EXPECT_FALSE(http_.start(download, at, file, variant::Variant(fields)));
    EXPECT_THAT(logLines(), ElementsAre("3 multihttp.RegisterRequest: " + line));
  };
  for (const bool download : {true, false}) {
    expectRefused(download, uri + std::string("\0/other", 7), {},
                  "The URI holds a NUL, uri=" + uri);
  }
  expectRefused(false, uri, {{"a", cut}}, "The form field `a` holds a NUL");
  expectRefused(false, uri, {{cut, "c"}}, "The form field `cut` holds a NUL");
  EXPECT_EQ(readFile(file), "content");

  EXPECT_TRUE(http_.start(false, uri, file));
  ASSERT_TRUE(finish());
  EXPECT_THAT(http_.completions, ElementsAre(uri + " 0 200"));
  EXPECT_EQ(server.connections(), 1U);
}

TEST_F(MultiHttpTest, UnknownUrisAreLogged) {
  unsigned char byte = 0;
  unsigned long size = 7;
  EXPECT_FALSE(http_.SignalBytesAvailable("u", &byte, 1, 0, 1));
  EXPECT_FALSE(http_.GetUploadTotalSize("u", size));
  EXPECT_EQ(http_.FillUploadBuffer("u", &byte, 1), CURL_READFUNC_ABORT);
  http_.SignalTransferCompleted("u", ctlserver::TRANSFER_OK, 200);
  EXPECT_THAT(logLines(),
              ElementsAre("3 multihttp.SignalBytesAvailable: Uri not tracked, uri=u",
                          "3 multihttp.GetUploadTotalSize: Uri not tracked, uri=u",
                          "3 multihttp.FillUploadBuffer: Uri not tracked, uri=u",
                          "4 multihttp.SignalTransferCompleted: Uri not tracked, uri=u"));
  EXPECT_EQ(size, 7U);
}

TEST_F(MultiHttpTest, DownloadHasNoUploadData) {
  ASSERT_TRUE(http_.start(true, kNobody, path("file")));
  unsigned char byte = 0;
  unsigned long size = 7;
  EXPECT_FALSE(http_.GetUploadTotalSize(kNobody, size));
  EXPECT_EQ(http_.FillUploadBuffer(kNobody, &byte, 1), CURL_READFUNC_ABORT);
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 multihttp.GetUploadTotalSize: Uri does not have associated file source, "
                  "uri=http://127.0.0.1:1/x",
                  "3 multihttp.FillUploadBuffer: Uri does not have associated file source, "
                  "uri=http://127.0.0.1:1/x"));
}

TEST_F(MultiHttpTest, UploadIsReadInPiecesUpToEnd) {
  ASSERT_TRUE(http_.start(false, kNobody, write("file", "12345")));
  unsigned char buffer[4] = {};
  unsigned long size = 0;
  EXPECT_TRUE(http_.GetUploadTotalSize(kNobody, size));
  EXPECT_EQ(size, 5U);
  EXPECT_EQ(http_.FillUploadBuffer(kNobody, buffer, 3), 3U);
  EXPECT_EQ(http_.FillUploadBuffer(kNobody, buffer, 3), 2U);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 3), "453");
  EXPECT_EQ(http_.FillUploadBuffer(kNobody, buffer, 3), 0U);
}

TEST_F(MultiHttpTest, CompletionClosesBothFilesOfItsPath) {
  const std::string file = write("file", "");
  ASSERT_TRUE(http_.start(true, "http://127.0.0.1:1/down", file));
  ASSERT_TRUE(http_.start(false, "http://127.0.0.1:1/up", file));
  http_.SignalTransferCompleted("http://127.0.0.1:1/down", ctlserver::TRANSFER_OK, 200);
  unsigned long size = 0;
  EXPECT_FALSE(http_.GetUploadTotalSize("http://127.0.0.1:1/up", size));
  EXPECT_TRUE(http_.start(false, "http://127.0.0.1:1/up2", file));
}

}  // namespace
}  // namespace kova::engine
