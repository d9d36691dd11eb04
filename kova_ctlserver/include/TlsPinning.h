#pragma once

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

namespace kova::ctlserver {

/// Verify callback of OpenSSL (SSL_CTX_set_verify(3)): accepts what OpenSSL accepts and, where it
/// does not, a certificate that equals the first one in kControllerCertFile.
///
/// @param preverifyOk non-zero when OpenSSL accepts the certificate
/// @param storeCtx    holds the certificate in question; its error is set to the outcome
/// @return 1 to continue, 0 to end the handshake, with the reason logged
int verifyCustomCert(int preverifyOk, X509_STORE_CTX* storeCtx);

/// Schemes that a transfer over TLS may be redirected to (CURLOPT_REDIR_PROTOCOLS_STR(3)).
inline constexpr char kTlsProtocols[] = "https";

/// CURLOPT_SSL_CTX_FUNCTION(3): requires the peer's certificate and installs verifyCustomCert.
/// libcurl calls it for each connection. It also forbids redirects out of TLS, and stops OpenSSL
/// from reading KeyUpdate messages (RFC 8446, 4.6.3) without end.
CURLcode installCertVerification(CURL* curl, void* sslCtx, void* userdata);

}  // namespace kova::ctlserver
