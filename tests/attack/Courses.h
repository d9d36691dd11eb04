#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Certificates.h"
#include "Random.h"
#include "RawServer.h"

namespace kova::attack {

/// Certificates of the camera and of the peers that it may meet.
struct Identities {
  engine::Identity authority = engine::makeIdentity({.host = "Authority", .authority = true});
  engine::Identity camera = engine::makeIdentity({.host = "camera", .issuer = &authority});
  engine::Identity server = engine::makeIdentity({.issuer = &authority});
  engine::Identity expired = engine::makeIdentity({.issuer = &authority, .expired = true});
  engine::Identity selfSigned = engine::makeIdentity({});
  engine::Identity foreignAuthority = engine::makeIdentity({.host = "Stranger", .authority = true});
  engine::Identity foreign = engine::makeIdentity({.issuer = &foreignAuthority});
};

/// A way for a server to misbehave on each connection.
struct Course {
  std::string name;
  bool tls;
  /// Whether an upload must fail. Otherwise it may succeed, which no event reports.
  bool failsUpload;
  /// Draws the open parameters. The script calls `breach` with the invariant that the camera breaks
  /// by continuing with this server.
  engine::RawServer::Script (*script)(Random& random, const Identities& identities,
                                      std::function<void(const std::string&)> breach);
  unsigned leastMs = 0;  ///< shortest time-out with which a transfer meets the misbehaviour
};

/// Courses over plain HTTP, and over TLS.
const std::vector<Course>& httpCourses();
const std::vector<Course>& tlsCourses();

}  // namespace kova::attack
