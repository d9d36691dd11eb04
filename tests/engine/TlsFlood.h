#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <string>

#include "Certificates.h"
#include "RawServer.h"
#include "kova/utils/Handle.h"

namespace kova::engine {

/// A TLS server on a RawServer that answers nothing: once the handshake is done and the request was
/// read, it sends messages that carry no data for as long as the peer takes them.
class TlsFlood {
 public:
  /// Lets OpenSSL put one more message on the way; false when the peer has gone.
  using Message = std::function<bool(SSL* ssl)>;

  /// @param begun what to send as the beginning of an answer, before the flood
  TlsFlood(const Identity& identity, Message message, std::string begun = "");

  std::string uri(const std::string& path = "/file") const;
  /// How many messages were sent so far.
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
