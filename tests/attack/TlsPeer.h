#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <string>

#include "Certificates.h"
#include "RawServer.h"
#include "kova/utils/Handle.h"

namespace kova::attack {

/// The server's side of TLS on an accepted connection. Nothing throws; failures return false.
class TlsPeer {
 public:
  /// @param version the only protocol version, 0 for any (TLS1_2_VERSION)
  TlsPeer(engine::Connection& connection, const engine::Identity& identity, int version = 0);

  bool handshake() { return SSL_accept(session_.get()) == 1; }
  /// Reads until the end of a request's head.
  bool readHead();
  bool send(const std::string& text);
  void awaitClose();

  /// Prepares key updates for some seconds and sends all of them at once: one at a time would
  /// arrive more slowly than the peer processes them.
  void floodKeyUpdates(bool answered);
  // Each sends one kind of non-data message as often as the peer accepts it within some seconds.
  void floodRenegotiations();
  void floodTickets();

 private:
  template <typename Queue>
  void flood(Queue queue, std::chrono::seconds limit);

  engine::Connection& connection_;
  utils::Handle<SSL_CTX, SSL_CTX_free> context_;
  utils::Handle<SSL, SSL_free> session_;
};

}  // namespace kova::attack
