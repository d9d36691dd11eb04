#include "WebServer.h"

#include <stdexcept>

namespace kova::engine {
namespace {

bool configure(SSL_CTX& context, const TlsSetup& tls) {
  if (tls.version != 0) {
    SSL_CTX_set_min_proto_version(&context, tls.version);
    SSL_CTX_set_max_proto_version(&context, tls.version);
  }
  if (tls.clientCa != nullptr) {
    X509_STORE_add_cert(SSL_CTX_get_cert_store(&context), tls.clientCa->certificate.get());
    SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return SSL_CTX_use_certificate(&context, tls.identity->certificate.get()) == 1 &&
         SSL_CTX_use_PrivateKey(&context, tls.identity->key.get()) == 1;
}

}  // namespace

WebServer::WebServer(const TlsSetup& tls)
    : server_([&tls](SSL_CTX& context) { return configure(context, tls); }) {
  server_.set_keep_alive_max_count(tls.keptAlive ? 100 : 1);
  // Not set_logger(), which runs after the answer: the client may call requests() before.
  server_.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request.method + " " + request.path);
    return httplib::Server::HandlerResponse::Unhandled;
  });
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) {
    throw std::runtime_error("cannot listen on the loopback interface");
  }
}

WebServer::~WebServer() {
  if (thread_.joinable()) {
    server_.stop();
    thread_.join();
  }
}

void WebServer::start() {
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) {
    std::this_thread::yield();
  }
}

std::string WebServer::uri(const std::string& path, const std::string& host) const {
  return "https://" + host + ":" + std::to_string(port_) + path;
}

std::vector<std::string> WebServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

}  // namespace kova::engine
