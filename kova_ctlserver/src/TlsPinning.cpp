#include "TlsPinning.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdio>

#include "CallbackBarrier.h"
#include "TlsFiles.h"
#include "kova/utils/Handle.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "curlcontext";

using Certificate = utils::Handle<X509, X509_free>;
using Stream = utils::Handle<std::FILE, std::fclose>;

Certificate loadPinned() {  // kept: 15
  const Stream file(std::fopen(kControllerCertFile, "re"));
  if (file == nullptr) {
    KOVA_LOG_IN("verifyCustomCert", LOG_ERR, errno, "Failed to open local cert");
    return nullptr;
  }
  ERR_set_mark();  // libcurl reports what remains in OpenSSL's queue as the cause
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
  X509_STORE_CTX_set_error(storeCtx, X509_V_OK);  // kept: 35
  return 1;
}

// OpenSSL keeps reading after a message without data. Once a peer sends KeyUpdate, let OpenSSL
// return after each message, so that the other transfers get their turn.
void onTlsMessage(int isWritten, int /*version*/, int contentType, const void* message,
                  std::size_t length, SSL* ssl, void* /*argument*/) {
  if (isWritten == 0 && contentType == SSL3_RT_HANDSHAKE && length != 0 &&
      *static_cast<const unsigned char*>(message) == SSL3_MT_KEY_UPDATE) {
    SSL_clear_mode(ssl, SSL_MODE_AUTO_RETRY);
  }
}

}  // namespace

int verifyCustomCert(int preverifyOk, X509_STORE_CTX* storeCtx) {
  return callbackBarrier(kLogUnit, __func__, 0,
                         [&] { return preverifyOk != 0 ? 1 : comparePinned(storeCtx); });
}

CURLcode installCertVerification(CURL* curl, void* sslCtx, void* /*userdata*/) {
  return callbackBarrier(kLogUnit, __func__, CURLE_ABORTED_BY_CALLBACK, [&] {
    auto* context = static_cast<SSL_CTX*>(sslCtx);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, verifyCustomCert);
    SSL_CTX_set_msg_callback(context, onTlsMessage);
    return curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, kTlsProtocols);
  });
}

}  // namespace kova::ctlserver
