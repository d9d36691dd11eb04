#include "curlcontext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "CurlFaults.h"
#include "Engine.h"
#include "RawServer.h"

namespace kova::engine {
namespace {

using ctlserver::CurlContext;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr char kUri[] = "http://127.0.0.1:9/x";
const std::string kOutOfMemory = "3 curlcontext.Init: Unable to setup CURL: 27 (Out of memory)";

class CurlContextTest : public EngineTest {
 protected:
  /// A context with these fields and no TLS files.
  std::unique_ptr<CurlContext> make(bool download, const variant::Variant& fields = {},
                                    unsigned timeoutMs = 5999) {
    return std::make_unique<CurlContext>(download, kUri, &http_, fields, timeoutMs, "", "", "");
  }

  static variant::Variant fields() {
    variant::Variant fields;
    fields["b"] = "two";
    fields["a"] = "one";
    return fields;
  }

  MemoryHttp http_;
};

TEST_F(CurlContextTest, FreshContextHasNoHandle) {
  const auto context = make(true);
  EXPECT_EQ(context->GetCurl(), nullptr);
  EXPECT_EQ(context->GetURI(), kUri);
}

TEST_F(CurlContextTest, DownloadSetsOptionsInOrder) {
  ASSERT_TRUE(make(true)->Init());
  EXPECT_THAT(
      curlFaults().options,
      ElementsAre("WRITEFUNCTION=...", "WRITEDATA=...", "PRIVATE=...", "URL=http://127.0.0.1:9/x",
                  "FOLLOWLOCATION=1", "SSL_VERIFYHOST=0", "SSL_VERIFYPEER=0", "TIMEOUT=5",
                  "SSL_VERIFYPEER=1", "SSL_CTX_FUNCTION=...", "CAPATH=(null)", "FRESH_CONNECT=1",
                  "FORBID_REUSE=1", "SSL_SESSIONID_CACHE=0", "CA_CACHE_TIMEOUT=0", "HTTP_VERSION=2",
                  "PROXY=", "OPENSOCKETFUNCTION=...", "OPENSOCKETDATA=...",
                  "CLOSESOCKETFUNCTION=...", "CLOSESOCKETDATA=...", "PROTOCOLS_STR=http,https",
                  "REDIR_PROTOCOLS_STR=http,https", "MAXREDIRS=30", "HEADERFUNCTION=...",
                  "HEADERDATA=...", "QUICK_EXIT=1"));
}

TEST_F(CurlContextTest, UploadSetsFormAndBuffer) {
  ASSERT_TRUE(make(false, fields())->Init());
  const std::vector<std::string> all = curlFaults().options;
  const std::vector<std::string> last(all.begin() + 26, all.end());
  EXPECT_THAT(last, ElementsAre("QUICK_EXIT=1", "UPLOAD_BUFFERSIZE=2097152", "HTTPPOST=...",
                                "POST=1", "HTTPPOST=...", "READFUNCTION=..."));
}

TEST_F(CurlContextTest, HttpsIsRedirectedOnlyToHttps) {
  for (const std::string uri : {"https://127.0.0.1:9/x", "HTTPS://127.0.0.1:9/x"}) {
    curlFaults() = {};
    CurlContext context(true, uri, &http_, {}, 0, "", "", "");
    ASSERT_TRUE(context.Init());
    EXPECT_EQ(curlFaults().options.at(22), "REDIR_PROTOCOLS_STR=https") << uri;
  }
}

TEST_F(CurlContextTest, UploadWithoutFieldsSetsFormOnce) {
  ASSERT_TRUE(make(false)->Init());
  EXPECT_EQ(std::count(curlFaults().options.begin(), curlFaults().options.end(), "HTTPPOST=..."),
            1);
}

TEST_F(CurlContextTest, FractionOfSecondIsDroppedFromTimeOut) {
  for (const auto& [milliseconds, option] : {std::pair{999U, "TIMEOUT=0"},
                                             {1000U, "TIMEOUT=1"},
                                             {1999U, "TIMEOUT=1"},
                                             {2'147'483'999U, "TIMEOUT=2147483"},
                                             {2'147'484'000U, "TIMEOUT=2147483"},
                                             {4'294'967'295U, "TIMEOUT=2147483"}}) {
    curlFaults() = {};
    ASSERT_TRUE(make(true, {}, milliseconds)->Init());
    EXPECT_EQ(curlFaults().options.at(7), option);
  }
}

TEST_F(CurlContextTest, MissingHandleIsLogged) {
  curlFaults().easyInit = true;
  EXPECT_FALSE(make(true)->Init());
  EXPECT_THAT(logLines(), ElementsAre("3 curlcontext.Init: curl_easy_init failed"));
}

TEST_F(CurlContextTest, CheckedOptionThatFailsEndsInit) {
  constexpr unsigned kUnchecked = 2;  // results that setPeerVerification ignores
  for (const bool download : {true, false}) {
    curlFaults() = {};
    ASSERT_TRUE(make(download, fields())->Init());
    const auto options = static_cast<unsigned>(curlFaults().options.size());
    unsigned failed = 0;
    for (unsigned set = 0; set < options; ++set) {
      fakes::reset();
      curlFaults() = {};
      curlFaults().failingOption = set;
      const bool result = make(download, fields())->Init();
      failed += result ? 0 : 1;
      EXPECT_EQ(logLines(), result ? std::vector<std::string>() : std::vector{kOutOfMemory}) << set;
    }
    EXPECT_EQ(failed, options - kUnchecked);
  }
}

TEST_F(CurlContextTest, FailedTlsOptionsAreLeftToTransfer) {
  CurlContext context(true, kUri, &http_, {}, 0, "/cert", "/key", "/ca");
  curlFaults().option = CURLOPT_SSLCERT;
  EXPECT_TRUE(context.Init());
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_THAT(curlFaults().options,
              ::testing::IsSupersetOf({"SSLCERTTYPE=PEM", "SSLKEY=/key", "CAINFO=/ca"}));
}

TEST_F(CurlContextTest, UploadOfUnknownSizeIsRefused) {
  http_.sizeKnown = false;
  EXPECT_FALSE(make(false)->Init());
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 curlcontext.Init: Failed to get file source size, uri=http://127.0.0.1:9/x"));
}

TEST_F(CurlContextTest, FormPartsThatCannotBeAddedAreNamed) {
  curlFaults().part = "payload";
  EXPECT_FALSE(make(false, fields())->Init());
  curlFaults().part = "b";
  EXPECT_FALSE(make(false, fields())->Init());
  EXPECT_THAT(
      logLines(),
      ElementsAre("3 curlcontext.Init: curl_formadd failed on filename, uri=http://127.0.0.1:9/x",
                  "3 curlcontext.Init: curl_formadd failed on field `b`"));
}

TEST_F(CurlContextTest, NonTextFormFieldsAreRefusedAndNothingSent) {
  RawServer server(answering(okResponse("")));
  for (const variant::Variant& value :
       {variant::Variant(7), variant::Variant(true), variant::Variant(), variant::Variant(0.5)}) {
    fakes::reset();
    variant::Variant mixed = fields();
    mixed["c"] = value;
    EXPECT_FALSE(http_.Init() && http_.start(server.uri(), false, mixed));
    EXPECT_THAT(logLines(),
                ElementsAre("3 curlcontext.Init: Only strings are allowed in the form fields",
                            "3 basehttp.RegisterRequest: Unable to init context"));
  }
  EXPECT_TRUE(http_.Service(0));
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(CurlContextTest, FailedInitReleasesHandleAndForm) {
  curlFaults().part = "b";
  EXPECT_FALSE(make(false, fields())->Init());
  EXPECT_THAT(curlFaults().released, ElementsAre("easy", "form"));
}

TEST_F(CurlContextTest, ChunksCarryOffsetAndLengthQueriedOnce) {
  const std::string body = noise(100'000);
  RawServer server(answering(okResponse(body)));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return !http_.completions.empty(); }));

  ASSERT_GT(http_.chunks.size(), 1U);
  unsigned long offset = 0;
  for (const auto& [chunkOffset, total] : http_.chunks) {
    EXPECT_GE(chunkOffset, offset);
    EXPECT_EQ(total, 100'000);
    offset = chunkOffset;
  }
  EXPECT_EQ(http_.chunks.front().first, 0U);
  EXPECT_EQ(http_.bodies[server.uri()], body);
  EXPECT_EQ(curlFaults().asked(kLengthInformation), 1U);
}

TEST_F(CurlContextTest, UnknownLengthIsMinusOneAndQueriedOnce) {
  RawServer server(once("HTTP/1.1 200 OK\r\n\r\n" + noise(100'000)));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return !http_.completions.empty(); }));
  ASSERT_GT(http_.chunks.size(), 1U);
  for (const auto& chunk : http_.chunks) {
    EXPECT_EQ(chunk.second, -1);
  }
  EXPECT_EQ(curlFaults().asked(kLengthInformation), 1U);
}

TEST_F(CurlContextTest, LargestLengthIsKept) {
  RawServer server(once("HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775807\r\n\r\nbody"));
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return !http_.completions.empty(); }));
  EXPECT_THAT(http_.chunks, ElementsAre(Pair(0, std::numeric_limits<long>::max())));
}

TEST_F(CurlContextTest, LengthQueryFailureEndsTransfer) {
  RawServer server(answering(okResponse("body")));
  curlFaults().info = kLengthInformation;
  ASSERT_TRUE(http_.Init() && http_.start(server.uri()));
  ASSERT_TRUE(serviceUntil(http_, [&] { return !http_.completions.empty(); }));
  EXPECT_THAT(http_.completions, ElementsAre(server.uri() + " 2 200"));
  EXPECT_THAT(logLines(), ElementsAre("3 curlcontext.HandleReceived: curl_easy_getinfo failed: 48 "
                                      "(An unknown option was passed in to libcurl)"));
}

TEST_F(CurlContextTest, RefusedChunksDoNotCount) {
  CurlContext context(true, kUri, &http_, {}, 0, "", "", "");
  ASSERT_TRUE(context.Init());
  unsigned char data[] = "abc";
  EXPECT_TRUE(context.HandleReceived(data, 3));
  http_.accept = [] { return false; };
  EXPECT_FALSE(context.HandleReceived(data, 3));
  EXPECT_EQ(CurlContext::DataReceived(reinterpret_cast<char*>(data), 1, 3, &context), 0U);
  http_.accept = nullptr;
  EXPECT_TRUE(context.HandleReceived(data, 3));
  EXPECT_THAT(http_.chunks, ElementsAre(Pair(0, -1), Pair(3, -1), Pair(3, -1), Pair(3, -1)));
}

TEST_F(CurlContextTest, ExceptionsEndOnlyTheirTransfer) {
  RawServer server(answering(okResponse("body")));
  http_.upload = "file";
  http_.accept = []() -> bool { throw std::runtime_error("disk on fire"); };
  http_.beforeFilling = [] { throw 1; };
  ASSERT_TRUE(http_.Init() && http_.start(server.uri("/down")));
  ASSERT_TRUE(http_.start(server.uri("/up"), false));
  ASSERT_TRUE(serviceUntil(http_, [&] { return http_.completions.size() == 2; }));
  EXPECT_THAT(http_.completions, ::testing::UnorderedElementsAre(server.uri("/down") + " 2 200",
                                                                 server.uri("/up") + " 1 0"));
  EXPECT_THAT(logLines(), ::testing::UnorderedElementsAre(
                              "3 curlcontext.DataReceived: Callback failed: disk on fire",
                              "3 curlcontext.DataNeeded: Callback failed: unknown exception",
                              curlErrorLine(42)));
}

}  // namespace
}  // namespace kova::engine
