// The verify callback in isolation: its result and the error in OpenSSL's store context.

#include "TlsPinning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <filesystem>

#include "Certificates.h"
#include "CurlFaults.h"
#include "Engine.h"
#include "TlsFiles.h"
#include "kova/utils/Handle.h"

namespace kova::engine {
namespace {

using ctlserver::verifyCustomCert;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Store = utils::Handle<X509_STORE_CTX, X509_STORE_CTX_free>;

class TlsPinningTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    std::filesystem::remove(ctlserver::kControllerCertFile);
    X509_STORE_CTX_set_error(store_.get(), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  }
  void present(const Identity& identity) {
    X509_STORE_CTX_set_current_cert(store_.get(), identity.certificate.get());
  }
  static void pin(const Identity& identity) {
    tests::writeText(ctlserver::kControllerCertFile, identity.certificatePem());
  }
  int error() const { return X509_STORE_CTX_get_error(store_.get()); }

  const Identity server_ = makeIdentity({});
  Store store_{X509_STORE_CTX_new()};
};

TEST_F(TlsPinningTest, CertificateAcceptedByOpenSslIsNotExamined) {
  EXPECT_EQ(verifyCustomCert(1, nullptr), 1);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsPinningTest, MissingCertificateIsRefused) {
  pin(server_);
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 0);
  EXPECT_EQ(error(), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_THAT(logLines(), ElementsAre("3 curlcontext.verifyCustomCert: Failed to get remote cert"));
}

TEST_F(TlsPinningTest, EqualCertificateClearsError) {
  pin(server_);
  present(server_);
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 1);
  EXPECT_EQ(error(), X509_V_OK);
  EXPECT_THAT(logLines(), IsEmpty());
}

TEST_F(TlsPinningTest, AnotherCertificateIsUntrusted) {
  pin(makeIdentity({}));
  present(server_);
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 0);
  EXPECT_EQ(error(), X509_V_ERR_CERT_UNTRUSTED);
  EXPECT_THAT(logLines(), ElementsAre("4 curlcontext.verifyCustomCert: Mismatched certs"));
}

TEST_F(TlsPinningTest, ErrorStaysWithoutPinnedCertificate) {
  present(server_);
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 0);
  EXPECT_EQ(error(), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  EXPECT_THAT(logLines(), ElementsAre("3 curlcontext.verifyCustomCert: Failed to open local cert"));
  EXPECT_EQ(fakes::platform().log.front().error, ENOENT);
}

TEST_F(TlsPinningTest, UnreadablePinnedCertificateLeavesEarlierErrors) {
  tests::writeText(ctlserver::kControllerCertFile, "no certificate");
  present(server_);
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 1);
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 0);
  EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_USER);
  EXPECT_EQ(ERR_get_error(), 0U);
  EXPECT_THAT(logLines(), ElementsAre("3 curlcontext.verifyCustomCert: Failed to load cert"));
}

TEST_F(TlsPinningTest, ExceptionTrustsNobody) {
  present(server_);
  fakes::platform().logThrows = true;
  EXPECT_EQ(verifyCustomCert(0, store_.get()), 0);
  EXPECT_THAT(logLines(),
              ElementsAre("3 curlcontext.verifyCustomCert: Callback failed: std::bad_alloc"));
}

TEST_F(TlsPinningTest, OnlyKeyUpdateOfPeerEndsRetrying) {
  const utils::Handle<CURL, curl_easy_cleanup> curl(curl_easy_init());
  const utils::Handle<SSL_CTX, SSL_CTX_free> context(SSL_CTX_new(TLS_client_method()));
  ASSERT_EQ(ctlserver::installCertVerification(curl.get(), context.get(), nullptr), CURLE_OK);
  EXPECT_EQ(SSL_CTX_get_verify_mode(context.get()), SSL_VERIFY_PEER);
  const struct {
    int isWritten;
    int type;
    unsigned char message;
    std::size_t length;
    bool retries;
  } cases[] = {
      {0, SSL3_RT_HANDSHAKE, SSL3_MT_KEY_UPDATE, 1, false},
      {0, SSL3_RT_HANDSHAKE, SSL3_MT_KEY_UPDATE, 0, true},
      {0, SSL3_RT_HANDSHAKE, SSL3_MT_FINISHED, 1, true},
      {0, SSL3_RT_ALERT, SSL3_MT_KEY_UPDATE, 1, true},
      {0, SSL3_RT_ALERT, SSL3_MT_FINISHED, 1, true},
      {1, SSL3_RT_HANDSHAKE, SSL3_MT_KEY_UPDATE, 1, true},
  };
  for (const auto& [isWritten, type, message, length, retries] : cases) {
    const utils::Handle<SSL, SSL_free> ssl(SSL_new(context.get()));
    SSL_set_mode(ssl.get(), SSL_MODE_AUTO_RETRY);
    curlFaults().messageCallback(isWritten, 0, type, &message, length, ssl.get(), nullptr);
    EXPECT_EQ((SSL_get_mode(ssl.get()) & SSL_MODE_AUTO_RETRY) != 0, retries)
        << isWritten << " " << type << " " << +message << " " << length;
  }
}

}  // namespace
}  // namespace kova::engine
