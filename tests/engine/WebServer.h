#pragma once

#include <httplib.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Certificates.h"

namespace kova::engine {

/// TLS parameters of a WebServer.
struct TlsSetup {
  const Identity* identity = nullptr;  ///< certificate to present
  const Identity* clientCa = nullptr;  ///< demands a client certificate of this authority
  int version = 0;                     ///< the only protocol version, 0 for any (TLS1_2_VERSION)
  bool keptAlive = false;              ///< serves further requests of a connection
};

/// An ordinary HTTPS server on a free loopback port, with its own threads. Handlers are added to
/// `server` before start(). Each connection serves one request unless the setup says otherwise.
class WebServer {
 public:
  explicit WebServer(const TlsSetup& tls);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  httplib::Server& server() { return server_; }
  void start();
  /// @param host a name or address of the loopback interface
  std::string uri(const std::string& path, const std::string& host = "127.0.0.1") const;
  /// "METHOD PATH" of each request, in order.
  std::vector<std::string> requests() const;

 private:
  httplib::SSLServer server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
};

}  // namespace kova::engine
