#include "TlsFlood.h"

#include <array>
#include <stdexcept>

namespace kova::engine {

TlsFlood::TlsFlood(const Identity& identity, Message message, std::string begun)
    : context_(SSL_CTX_new(TLS_server_method())),
      message_(std::move(message)),
      begun_(std::move(begun)),
      server_([this](Connection& connection) { serve(connection.descriptor()); }) {
  if (context_ == nullptr ||
      SSL_CTX_use_certificate(context_.get(), identity.certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context_.get(), identity.key.get()) != 1) {
    throw std::runtime_error("cannot speak TLS");
  }
}

std::string TlsFlood::uri(const std::string& path) const {
  return "https" + server_.uri(path).substr(4);
}

bool TlsFlood::keyUpdate(SSL* ssl) {
  return SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED) == 1 && SSL_do_handshake(ssl) == 1;
}

// The peer may reset the connection at any time, and OpenSSL writes without MSG_NOSIGNAL, so the
// tests ignore SIGPIPE.
void TlsFlood::serve(int fd) {
  const utils::Handle<SSL, SSL_free> ssl(SSL_new(context_.get()));
  std::array<char, 4096> request;
  if (SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1 ||
      SSL_read(ssl.get(), request.data(), request.size()) <= 0) {
    return;
  }
  if (!begun_.empty()) {
    SSL_write(ssl.get(), begun_.data(), static_cast<int>(begun_.size()));
  }
  while (message_(ssl.get())) {
    ++sent_;
  }
}

}  // namespace kova::engine
