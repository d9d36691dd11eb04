// Which peers the engine trusts. The pinned certificate has a fixed path, so this runs in a private
// root.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "Engine.h"
#include "RawServer.h"
#include "TlsFiles.h"
#include "WebServer.h"

namespace kova::engine {
namespace {

using ::testing::IsEmpty;

class TlsTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    std::array<char, 64> host{};
    gethostname(host.data(), host.size() - 1);
    ASSERT_STREQ(host.data(), "kova-test") << "run by tests/private-root only: writes to /etc";
    std::filesystem::remove(ctlserver::kControllerCertFile);
    otherCa_ = write("other-ca.pem", stranger_.certificatePem());
  }

  static void pin(const std::string& content) {
    tests::writeText(ctlserver::kControllerCertFile, content);
  }

  static std::unique_ptr<WebServer> serve(const TlsSetup& tls) {
    auto web = std::make_unique<WebServer>(tls);
    web->server().Get("/file", [](const auto&, httplib::Response& response) {
      response.set_content("secret", "text/plain");
    });
    web->start();
    return web;
  }

  std::string fetch(const WebServer& web, const std::string& caFile,
                    const std::string& certFile = "", const std::string& keyFile = "",
                    const std::string& host = "127.0.0.1") {
    RecordingTask task(web.uri("/file", host), path("file"));
    task.setCACertFile(caFile).setCertFile(certFile).setPrivKeyFile(keyFile);
    std::string outcome = run(task);
    EXPECT_EQ(readFile(path("file")), outcome == "success" ? "secret" : "");
    return outcome;
  }
  /// Expects that the engine refuses the server and logs `reasons` before its own lines.
  void expectRefused(const WebServer& web, std::vector<std::string> reasons,
                     const std::string& caFile, int curlCode = 60) {
    EXPECT_EQ(fetch(web, caFile), "failure 1 0");
    reasons.push_back(curlErrorLine(curlCode));
    reasons.push_back(failureLine(web.uri("/file"), "TRANSFER_FAILED(1)", 0));
    EXPECT_EQ(logLines(), reasons);
    EXPECT_THAT(web.requests(), IsEmpty());
  }

  static constexpr const char* kDefaultCa = ctlserver::kControllerCertFile;
  static constexpr const char* kMismatch = "4 curlcontext.verifyCustomCert: Mismatched certs";

  const Identity ca_ = makeIdentity({.host = "authority", .authority = true});
  const Identity stranger_ = makeIdentity({.host = "stranger", .authority = true});
  const Identity issued_ = makeIdentity({.issuer = &ca_});
  const Identity selfSigned_ = makeIdentity({});
  std::string otherCa_;
};

TEST_F(TlsTest, ChainValidatedByCaFileIsAccepted) {
  pin(ca_.certificatePem());
  const auto web = serve({.identity = &issued_});
  EXPECT_EQ(fetch(*web, kDefaultCa), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsTest, ChainValidatedByOtherCaFileNeedsNoPin) {
  const auto web = serve({.identity = &issued_});
  EXPECT_EQ(fetch(*web, write("ca.pem", ca_.certificatePem())), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsTest, PinnedSelfSignedCertificateIsAccepted) {
  pin(selfSigned_.certificatePem());
  const auto web = serve({.identity = &selfSigned_});
  EXPECT_EQ(fetch(*web, otherCa_), "success");
  EXPECT_EQ(fetch(*web, kDefaultCa), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsTest, PinnedCertificateOfUnknownAuthorityIsAccepted) {
  const auto web = serve({.identity = &issued_});
  pin(issued_.certificatePem());
  EXPECT_EQ(fetch(*web, otherCa_), "success");
}

TEST_F(TlsTest, IssuedCertificateOfUnknownAuthorityIsRefused) {
  const auto web = serve({.identity = &issued_});
  pin(ca_.certificatePem());
  expectRefused(*web, {kMismatch}, otherCa_);
}

TEST_F(TlsTest, OnlyFirstPinnedCertificateCounts) {
  const auto web = serve({.identity = &selfSigned_});
  pin(stranger_.certificatePem() + selfSigned_.certificatePem());
  expectRefused(*web, {kMismatch}, otherCa_);
}

TEST_F(TlsTest, ExpiredCertificateIsRefused) {
  const Identity expired = makeIdentity({.issuer = &ca_, .expired = true});
  pin(ca_.certificatePem());
  const auto web = serve({.identity = &expired});
  expectRefused(*web, {kMismatch}, kDefaultCa);
}

TEST_F(TlsTest, PinnedExpiredCertificateIsAccepted) {
  const Identity expired = makeIdentity({.expired = true});
  pin(expired.certificatePem());
  const auto web = serve({.identity = &expired});
  EXPECT_EQ(fetch(*web, kDefaultCa), "success");
  EXPECT_EQ(fetch(*web, otherCa_), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsTest, HostNameIsNotCompared) {
  const Identity elsewhere = makeIdentity({.host = "elsewhere.example", .issuer = &ca_});
  pin(ca_.certificatePem());
  const auto web = serve({.identity = &elsewhere});
  EXPECT_EQ(fetch(*web, kDefaultCa), "success");
  EXPECT_EQ(fetch(*web, kDefaultCa, "", "", "localhost"), "success");
}

TEST_F(TlsTest, MissingCaFileRefusesEveryServer) {
  const auto web = serve({.identity = &issued_});
  expectRefused(*web, {}, kDefaultCa, 77);
}

TEST_F(TlsTest, SystemAuthoritiesCountWithoutCaFile) {
  const auto web = serve({.identity = &selfSigned_});
  pin(stranger_.certificatePem());
  expectRefused(*web, {kMismatch}, "");
  pin(selfSigned_.certificatePem());
  EXPECT_EQ(fetch(*web, ""), "success");
}

/// Installs `authority` as a system authority of OpenSSL and libcurl for the duration of a test.
class SystemAuthority {
 public:
  explicit SystemAuthority(const Identity& authority) {
    std::array<char, 32> name{};
    std::snprintf(name.data(), name.size(), "/%08lx.0",
                  X509_subject_name_hash(authority.certificate.get()));
    mounted_ = mount("tmpfs", kFolder, "tmpfs", 0, nullptr) == 0;
    EXPECT_TRUE(mounted_);
    tests::writeText(kFolder + std::string(name.data()), authority.certificatePem());
    setenv("SSL_CERT_DIR", kFolder, 1);
    setenv("SSL_CERT_FILE", (kFolder + std::string(name.data())).c_str(), 1);
  }
  ~SystemAuthority() {
    unsetenv("SSL_CERT_DIR");
    unsetenv("SSL_CERT_FILE");
    if (mounted_) {
      umount(kFolder);
    }
  }
  SystemAuthority(const SystemAuthority&) = delete;
  SystemAuthority& operator=(const SystemAuthority&) = delete;

 private:
  static constexpr const char* kFolder = "/etc/ssl/certs";
  bool mounted_ = false;
};

TEST_F(TlsTest, SystemAuthoritiesAreNotTrusted) {
  const Identity foreign = makeIdentity({.issuer = &stranger_});
  const SystemAuthority planted(stranger_);
  pin(ca_.certificatePem());
  const auto web = serve({.identity = &foreign});
  expectRefused(*web, {kMismatch}, kDefaultCa);
}

TEST_F(TlsTest, TrustEndsWithPinnedCertificate) {
  pin(selfSigned_.certificatePem());
  const auto web = serve({.identity = &selfSigned_, .keptAlive = true});
  EXPECT_EQ(fetch(*web, kDefaultCa), "success");
  pin(stranger_.certificatePem());
  EXPECT_EQ(fetch(*web, kDefaultCa), "failure 1 0");
  EXPECT_EQ(web->requests().size(), 1U);
}

TEST_F(TlsTest, RedirectionMayUpgradeToHttpsButNotDowngrade) {
  pin(selfSigned_.certificatePem());
  RawServer plain(answering(okResponse("secret")));
  const auto web = serve({.identity = &selfSigned_});
  web->server().Get("/down", [&](const auto&, httplib::Response& response) {
    response.set_redirect(plain.uri("/file"));
  });
  RawServer entrance(answering("HTTP/1.1 302 Found\r\nLocation: " + web->uri("/down") +
                               "\r\nContent-Length: 0\r\n\r\n"));
  for (const std::string& uri :
       {web->uri("/down"), "HTTPS" + web->uri("/down").substr(5), entrance.uri("/file")}) {
    RecordingTask task(uri, path("file"));
    EXPECT_EQ(run(task), "failure 1 302");
  }
  EXPECT_EQ(plain.connections(), 0U);

  RawServer upwards(answering("HTTP/1.1 302 Found\r\nLocation: " + web->uri("/file") +
                              "\r\nContent-Length: 0\r\n\r\n"));
  RecordingTask task(upwards.uri(), path("file"));
  EXPECT_EQ(run(task), "success");
  EXPECT_EQ(readFile(path("file")), "secret");
}

class ClientCertificateTest : public TlsTest, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    TlsTest::SetUp();
    pin(ca_.certificatePem());
    web_ = serve({.identity = &issued_, .clientCa = &ca_, .version = GetParam()});
  }
  void TearDown() override {
    web_.reset();
    TlsTest::TearDown();
  }

  const Identity camera_ = makeIdentity({.host = "camera", .issuer = &ca_});
  std::unique_ptr<WebServer> web_;
};

INSTANTIATE_TEST_SUITE_P(Tls, ClientCertificateTest,
                         ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) {
                           return version.param == TLS1_2_VERSION ? "Version12" : "Version13";
                         });

TEST_P(ClientCertificateTest, CertificateAndKeyInOneFileAreSent) {
  const std::string both = write("server.pem", camera_.certificatePem() + camera_.keyPem());
  EXPECT_EQ(fetch(*web_, kDefaultCa, both), "success");
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_P(ClientCertificateTest, CertificateAndKeyInTwoFilesAreSent) {
  EXPECT_EQ(fetch(*web_, kDefaultCa, write("camera.crt", camera_.certificatePem()),
                  write("camera.key", camera_.keyPem())),
            "success");
}

TEST_P(ClientCertificateTest, ServerRefusesWithoutCertificateOfItsAuthority) {
  const std::string other = selfSigned_.certificatePem() + selfSigned_.keyPem();
  for (const std::string& file : {std::string(), write("server.pem", other)}) {
    EXPECT_EQ(fetch(*web_, kDefaultCa, file), "failure 1 0") << file;
    EXPECT_THAT(web_->requests(), IsEmpty()) << file;
  }
}

TEST_P(ClientCertificateTest, MissingCertificateFileFailsTransfer) {
  EXPECT_EQ(fetch(*web_, kDefaultCa, path("missing.pem")), "failure 1 0");
  EXPECT_EQ(logLines().front(), curlErrorLine(58));
}

}  // namespace
}  // namespace kova::engine
