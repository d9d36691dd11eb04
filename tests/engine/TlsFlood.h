#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <string>

#include "Certificates.h"
#include "RawServer.h"
#include "kova/utils/Handle.h"

namespace kova::engine {

/// A TLS server that does not answer: after the handshake and the request it sends messages without
/// payload for as long as the peer accepts them.
class TlsFlood {
 public:
  /// Makes OpenSSL send one more message; false if the peer has closed.
  using Message = std::function<bool(SSL* ssl)>;

  /// @param begun beginning of a response, sent before the flood
  TlsFlood(const Identity& identity, Message message, std::string begun = "");

  std::string uri(const std::string& path = "/file") const;
  /// Number of messages sent so far.
  std::size_t sent() const { return sent_; }

  static bool keyUpdate(SSL* ssl);

 private:
  void serve(int fd);

  utils::Handle<SSL_CTX, SSL_CTX_free> context_;
  const Message message_;
  const std::string begun_;
  std::atomic<std::size_t> sent_ = 0;
  RawServer server_;  // last: its scripts use the others
};

}  // namespace kova::engine
