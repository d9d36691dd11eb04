#include "Certificates.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <stdexcept>

namespace kova::engine {
namespace {

constexpr long kDay = 24L * 60 * 60;

using Buffer = utils::Handle<BIO, BIO_free_all>;

void require(bool succeeded) {
  if (!succeeded) {
    throw std::runtime_error("cannot make a certificate");
  }
}

std::string contentOf(const Buffer& buffer) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(buffer.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

void addExtension(X509* certificate, int nid, const char* value) {
  const utils::Handle<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, nid, value));
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

void setName(X509* certificate, const std::string& host) {
  X509_NAME* name = X509_get_subject_name(certificate);
  require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(host.c_str()), -1, -1,
                                     0) == 1);
}

}  // namespace

std::string Identity::certificatePem() const {
  const Buffer buffer(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_X509(buffer.get(), certificate.get()) == 1);
  return contentOf(buffer);
}

std::string Identity::keyPem() const {
  const Buffer buffer(BIO_new(BIO_s_mem()));
  require(PEM_write_bio_PrivateKey(buffer.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                   nullptr) == 1);
  return contentOf(buffer);
}

Identity makeIdentity(const CertificateOptions& options) {
  static std::atomic<long> serial = 1;
  Identity identity;
  identity.key.reset(EVP_EC_gen("P-256"));
  identity.certificate.reset(X509_new());
  X509* const certificate = identity.certificate.get();
  require(identity.key != nullptr && certificate != nullptr);

  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -10 * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.expired ? -kDay : 10 * kDay);
  setName(certificate, options.host);
  X509_set_pubkey(certificate, identity.key.get());
  addExtension(certificate, NID_basic_constraints, options.authority ? "CA:TRUE" : "CA:FALSE");

  const Identity& issuer = options.issuer != nullptr ? *options.issuer : identity;
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get())) == 1);
  require(X509_sign(certificate, issuer.key.get(), EVP_sha256()) > 0);
  return identity;
}

}  // namespace kova::engine
