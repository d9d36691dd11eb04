#include "RawServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace kova::engine {
namespace {

constexpr int kBacklog = 2048;

sockaddr_in loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

std::string RawRequest::header(std::string_view name) const {
  std::size_t line = head.find("\r\n");
  while (line != std::string::npos && line + 2 < head.size()) {
    const std::size_t start = line + 2;
    line = head.find("\r\n", start);
    const std::size_t colon = head.find(':', start);
    if (colon < line && colon - start == name.size() &&
        strncasecmp(head.data() + start, name.data(), name.size()) == 0) {
      const std::size_t value = head.find_first_not_of(' ', colon + 1);
      return head.substr(value, line - value);
    }
  }
  return "";
}

Connection::Connection(RawServer& server, int fd, unsigned number)
    : server_(server), fd_(fd), number_(number) {}

bool Connection::receive() {
  std::array<char, 65536> chunk;
  const ssize_t got = recv(fd_, chunk.data(), chunk.size(), 0);
  if (got > 0) {
    buffered_.append(chunk.data(), static_cast<std::size_t>(got));
  }
  return got > 0;
}

bool Connection::readBytes(std::size_t count, std::string& to) {
  while (buffered_.size() < count) {
    if (!receive()) {
      return false;
    }
  }
  to.append(buffered_, 0, count);
  buffered_.erase(0, count);
  return true;
}

bool Connection::readUntil(std::string_view mark, std::string& to) {
  std::size_t end;
  while ((end = buffered_.find(mark)) == std::string::npos) {
    if (!receive()) {
      return false;
    }
  }
  to.clear();
  return readBytes(end + mark.size(), to);
}

bool Connection::readHead() {
  request_.body.clear();
  return readUntil("\r\n\r\n", request_.head);
}

bool Connection::readRequest() {
  return readHead() && readBody();
}

bool Connection::readBody() {
  const bool whole = receiveBody();
  if (whole) {
    server_.note(request_);
  }
  return whole;
}

bool Connection::receiveBody() {
  if (request_.header("Transfer-Encoding") == "chunked") {
    return readChunked();
  }
  const std::string announced = request_.header("Content-Length");
  return readBytes(announced.empty() ? 0 : std::stoul(announced), request_.body);
}

bool Connection::readChunked() {
  std::string line;
  std::size_t length = 1;
  while (length > 0) {
    if (!readUntil("\r\n", line)) {
      return false;
    }
    length = std::stoul(line, nullptr, 16);
    line.clear();
    if (!readBytes(length, request_.body) || !readBytes(2, line) || line != "\r\n") {
      return false;
    }
  }
  return true;
}

void Connection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (put <= 0) {
      return;
    }
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
}

void Connection::trickle(std::string_view bytes, int milliseconds) {
  for (const char& byte : bytes) {
    send({&byte, 1});
    pollfd peer{fd_, POLLIN | POLLRDHUP, 0};
    if (poll(&peer, 1, milliseconds) != 0) {
      return;
    }
  }
}

void Connection::awaitClose() {
  while (receive()) {
  }
}

void Connection::resetOnClose() {
  const linger abort{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

RawServer::RawServer(Script script) : script_(std::move(script)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback();
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (listener_ < 0 || bind(listener_, generic, size) != 0 || listen(listener_, kBacklog) != 0 ||
      getsockname(listener_, generic, &size) != 0) {
    throw std::runtime_error("cannot listen on the loopback interface");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept(); });
}

RawServer::~RawServer() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    for (const int fd : open_) {
      shutdown(fd, SHUT_RDWR);
    }
  }
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (std::thread& worker : workers_) {
    worker.join();
  }
  close(listener_);
}

void RawServer::accept() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    if (stopping_) {
      close(fd);
      return;
    }
    open_.push_back(fd);
    workers_.emplace_back([this, fd, number = accepted_++] { serve(fd, number); });
  }
}

void RawServer::serve(int fd, unsigned number) {
  Connection connection(*this, fd, number);
  script_(connection);
  const std::lock_guard lock(mutex_);
  open_.remove(fd);
  close(fd);
}

void RawServer::note(const RawRequest& request) {
  const std::lock_guard lock(mutex_);
  requests_.push_back(request);
}

std::string RawServer::uri(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<RawRequest> RawServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

std::string okResponse(std::string_view body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         std::string(body);
}

RawServer::Script answering(std::string response) {
  return [response = std::move(response)](Connection& connection) {
    while (connection.readRequest()) {
      connection.send(response);
    }
  };
}

RawServer::Script once(std::string bytes) {
  return [bytes = std::move(bytes)](Connection& connection) {
    connection.readRequest();
    connection.send(bytes);
  };
}

RawServer::Script stalling(std::string begun) {
  return [begun = std::move(begun)](Connection& connection) {
    connection.readRequest();
    connection.send(begun);
    connection.awaitClose();
  };
}

}  // namespace kova::engine
