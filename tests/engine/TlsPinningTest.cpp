// The verify callback by itself: what it leaves in OpenSSL's store.

#include "TlsPinning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Certificates.h"
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
    writeFile(ctlserver::kControllerCertFile, identity.certificatePem());
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
}

}  // namespace
}  // namespace kova::engine
