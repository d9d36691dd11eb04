#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace kova::engine {

template <auto kRelease>
struct OpenSslReleaser {
  template <typename Object>
  void operator()(Object* object) const {
    kRelease(object);
  }
};

/// A certificate and its private key.
struct Identity {
  std::unique_ptr<X509, OpenSslReleaser<X509_free>> certificate;
  std::unique_ptr<EVP_PKEY, OpenSslReleaser<EVP_PKEY_free>> key;

  std::string certificatePem() const;
  std::string keyPem() const;
};

struct CertificateOptions {
  std::string host = "127.0.0.1";    ///< common name
  const Identity* issuer = nullptr;  ///< null: signed by itself
  bool authority = false;            ///< may sign others
  bool expired = false;              ///< ended yesterday
};

/// Makes a key (P-256) and a certificate for it. Throws when OpenSSL fails.
Identity makeIdentity(const CertificateOptions& options);

}  // namespace kova::engine
