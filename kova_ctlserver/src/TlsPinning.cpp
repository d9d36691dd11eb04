#include "TlsPinning.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "CallbackBarrier.h"
#include "TlsFiles.h"
#include "TransferHandles.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "curlcontext";

using Certificate = std::unique_ptr<X509, Releaser<X509_free>>;
using Stream = std::unique_ptr<std::FILE, Releaser<std::fclose>>;

Certificate loadPinned() {
  const Stream file(std::fopen(kControllerCertFile, "re"));
  if (file == nullptr) {
    KOVA_LOG_IN("verifyCustomCert", LOG_ERR, errno, "Failed to open local cert");
    return nullptr;
  }
  ERR_set_mark();  // libcurl takes what is left in OpenSSL's queue for the cause of the failure
  Certificate pinned(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  ERR_pop_to_mark();
  if (pinned == nullptr) {
    KOVA_LOG_IN("verifyCustomCert", LOG_ERR, 0, "Failed to load cert");
  }
  return pinned;
}

int comparePinned(X509_STORE_CTX* storeCtx) {
  const X509* presented = X509_STORE_CTX_get_current_cert(storeCtx);
  if (presented == nullptr) {
    KOVA_LOG_IN("verifyCustomCert", LOG_ERR, 0, "Failed to get remote cert");
    return 0;
  }
  const Certificate pinned = loadPinned();
  if (pinned == nullptr) {
    return 0;
  }
  if (X509_cmp(presented, pinned.get()) != 0) {
    KOVA_LOG_IN("verifyCustomCert", LOG_WARNING, 0, "Mismatched certs");
    X509_STORE_CTX_set_error(storeCtx, X509_V_ERR_CERT_UNTRUSTED);
    return 0;
  }
  X509_STORE_CTX_set_error(storeCtx, X509_V_OK);
  return 1;
}

}  // namespace

int verifyCustomCert(int preverifyOk, X509_STORE_CTX* storeCtx) {
  return callbackBarrier(kLogUnit, __func__, 0,
                         [&] { return preverifyOk != 0 ? 1 : comparePinned(storeCtx); });
}

CURLcode installCertVerification(CURL* /*curl*/, void* sslCtx, void* /*userdata*/) {
  return callbackBarrier(kLogUnit, __func__, CURLE_ABORTED_BY_CALLBACK, [&] {
    SSL_CTX_set_verify(static_cast<SSL_CTX*>(sslCtx), SSL_VERIFY_PEER, verifyCustomCert);
    return CURLE_OK;
  });
}

}  // namespace kova::ctlserver
