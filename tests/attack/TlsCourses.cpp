#include <memory>

#include "Courses.h"
#include "TlsPeer.h"

namespace kova::attack {
namespace {

using engine::Connection;
using engine::Identity;
using engine::RawServer;
using Script = RawServer::Script;
using Breach = std::function<void(const std::string&)>;

constexpr char kDistrusts[] = "a server without the controller's word is not trusted";
constexpr char kNoDowngrade[] = "https is not redirected to http";

/// A server whose certificate must not be accepted.
Script impostor(const Identity& identity, Breach breach) {
  return [&identity, breach = std::move(breach)](Connection& connection) {
    TlsPeer peer(connection, identity);
    if (peer.handshake() && peer.readHead()) {
      breach(kDistrusts);
      peer.send(engine::okResponse("body"));
    }
  };
}
Script expired(Random&, const Identities& identities, Breach breach) {
  return impostor(identities.expired, std::move(breach));
}
Script selfSigned(Random&, const Identities& identities, Breach breach) {
  return impostor(identities.selfSigned, std::move(breach));
}
Script foreign(Random&, const Identities& identities, Breach breach) {
  return impostor(identities.foreign, std::move(breach));
}
Script anotherCamera(Random&, const Identities& identities, Breach breach) {
  static const Identity byAnyone = engine::makeIdentity({.issuer = &identities.selfSigned});
  return impostor(byAnyone, std::move(breach));
}

/// A trusted server that answers a request by abusing TLS.
Script floodBy(const Identities& identities, int version, void (*flood)(TlsPeer&)) {
  return [&identities, version, flood](Connection& connection) {
    TlsPeer peer(connection, identities.server, version);
    if (peer.handshake() && peer.readHead()) {
      flood(peer);
    }
  };
}
Script keyUpdates(Random& random, const Identities& identities, Breach) {
  return random.oneIn(2) ? floodBy(identities, TLS1_3_VERSION,
                                   [](TlsPeer& peer) { peer.floodKeyUpdates(true); })
                         : floodBy(identities, TLS1_3_VERSION,
                                   [](TlsPeer& peer) { peer.floodKeyUpdates(false); });
}
Script renegotiations(Random&, const Identities& identities, Breach) {
  return floodBy(identities, TLS1_2_VERSION, [](TlsPeer& peer) { peer.floodRenegotiations(); });
}
Script tickets(Random&, const Identities& identities, Breach) {
  return floodBy(identities, TLS1_3_VERSION, [](TlsPeer& peer) { peer.floodTickets(); });
}

Script cutShort(Random& random, const Identities& identities, Breach) {
  return [&identities, part = random.below(30)](Connection& connection) {
    TlsPeer peer(connection, identities.server);
    if (peer.handshake() && peer.readHead()) {
      peer.send(std::string("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n").substr(0, 1 + part));
    }
  };
}

Script downgrade(Random& random, const Identities& identities, Breach breach) {
  static const std::vector<std::string> status = {"301", "302", "303", "307", "308"};
  const auto plain = std::make_shared<RawServer>([breach](Connection& connection) {
    if (connection.readHead()) {
      breach(kNoDowngrade);
    }
  });
  return [&identities, plain, code = random.pick(status)](Connection& connection) {
    TlsPeer peer(connection, identities.server);
    if (peer.handshake() && peer.readHead()) {
      peer.send("HTTP/1.1 " + code +
                " Elsewhere\r\nContent-Length: 0\r\nLocation: " + plain->uri() + "\r\n\r\n");
      peer.awaitClose();
    }
  };
}

/// The bytes of one record (RFC 8446, section 5.1).
std::string record(char type, const std::string& content) {
  const auto size = static_cast<unsigned>(content.size());
  return std::string{type, '\3', '\3', static_cast<char>(size >> 8), static_cast<char>(size)} +
         content;
}

Script garbageHandshake(Random& random, const Identities&, Breach) {
  constexpr char kHandshake = 22;
  std::string bytes = random.bytes(1 + random.below(10'000));
  if (random.oneIn(2)) {
    bytes = record(kHandshake, bytes);
  }
  return [bytes, wait = random.oneIn(2)](Connection& connection) {
    connection.send(bytes);
    if (wait) {
      connection.awaitClose();
    }
  };
}
Script warnings(Random&, const Identities&, Breach) {
  constexpr char kAlert = 21;
  return [](Connection& connection) {
    std::string block;
    for (int i = 0; i < 10'000; ++i) {
      block += record(kAlert, {'\1', '\0'});
    }
    for (int i = 0; i < 100; ++i) {
      connection.send(block);
    }
  };
}
Script silentHandshake(Random&, const Identities&, Breach) {
  return [](Connection& connection) { connection.awaitClose(); };
}
Script plainAnswer(Random&, const Identities&, Breach) {
  return [](Connection& connection) { connection.send(engine::okResponse("body")); };
}

}  // namespace

const std::vector<Course>& tlsCourses() {
  static const std::vector<Course> all = {
      {"expired certificate", true, true, expired},
      {"self-signed certificate", true, true, selfSigned},
      {"certificate of a foreign authority", true, true, foreign},
      {"certificate signed by no authority", true, true, anotherCamera},
      {"key updates", true, true, keyUpdates, 5000},
      {"renegotiations", true, true, renegotiations},
      {"session tickets", true, true, tickets},
      {"cut TLS answer", true, true, cutShort},
      {"downgrade", true, true, downgrade},
      {"garbage handshake", true, true, garbageHandshake},
      {"warnings", true, true, warnings},
      {"silent handshake", true, true, silentHandshake},
      {"plain answer", true, true, plainAnswer},
  };
  return all;
}

}  // namespace kova::attack
