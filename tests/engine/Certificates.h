#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "kova/utils/Handle.h"

namespace kova::engine {

/// A certificate and its private key.
struct Identity {
  utils::Handle<X509, X509_free> certificate;
  utils::Handle<EVP_PKEY, EVP_PKEY_free> key;

  std::string certificatePem() const;
  std::string keyPem() const;
};

struct CertificateOptions {
  std::string host = "127.0.0.1";    ///< common name
  const Identity* issuer = nullptr;  ///< null: signed by itself
  bool authority = false;            ///< may sign others
  bool expired = false;              ///< ended yesterday
};

/// Makes a key (P-256) and a certificate for it. Throws if OpenSSL fails.
Identity makeIdentity(const CertificateOptions& options);

}  // namespace kova::engine
