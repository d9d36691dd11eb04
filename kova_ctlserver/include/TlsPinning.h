#pragma once

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

namespace kova::ctlserver {

/// Verify callback of OpenSSL (SSL_CTX_set_verify(3)): accepts what OpenSSL accepts and, where it
/// does not, a certificate that equals the first one in kControllerCertFile.
///
/// @param preverifyOk non-zero when OpenSSL accepts the certificate
/// @param storeCtx    holds the certificate in question; its error is set to the outcome
/// @return 1 to go on, 0 to end the handshake; why is logged
int verifyCustomCert(int preverifyOk, X509_STORE_CTX* storeCtx);

/// CURLOPT_SSL_CTX_FUNCTION(3): demands the peer's certificate and installs verifyCustomCert.
CURLcode installCertVerification(CURL* curl, void* sslCtx, void* userdata);

}  // namespace kova::ctlserver
