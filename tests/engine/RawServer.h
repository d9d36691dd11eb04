#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kova::engine {

/// A client's request: the head including its empty line, and the body with chunked coding removed.
struct RawRequest {
  std::string head;
  std::string body;

  /// The value of a header field (case-insensitive name), "" if absent.
  std::string header(std::string_view name) const;
};

class RawServer;

/// One accepted connection, for a script. Nothing throws: once the peer has closed or the server
/// stops, reads return nothing and sends are no-ops.
class Connection {
 public:
  Connection(RawServer& server, int fd, unsigned number);

  /// 0 for the first connection the server accepted, 1 for the second, ...
  unsigned number() const { return number_; }
  /// For protocols below HTTP; must not be mixed with the calls below.
  int descriptor() const { return fd_; }
  /// Reads a whole request into request() and the server's log; false if there was none.
  bool readRequest();
  /// Reads only the head of a request; the body stays unread.
  bool readHead();
  /// Reads the body after readHead() and adds the request to the server's log.
  bool readBody();
  const RawRequest& request() const { return request_; }
  void send(std::string_view bytes);
  /// Sends `bytes` one at a time, `milliseconds` apart, until done or the peer closes.
  void trickle(std::string_view bytes, int milliseconds);
  /// Waits until the peer closes.
  void awaitClose();
  /// Makes the next close reset the connection (SO_LINGER).
  void resetOnClose();

 private:
  bool receive();
  bool receiveBody();
  bool readChunked();
  /// Moves `count` received bytes to the end of `to`.
  bool readBytes(std::size_t count, std::string& to);
  /// Moves all received bytes up to the end of `mark` into `to`.
  bool readUntil(std::string_view mark, std::string& to);

  RawServer& server_;
  int fd_;
  unsigned number_;
  std::string buffered_;
  RawRequest request_;
};

/// A server on a free loopback port that runs a script for each connection in a separate thread and
/// then closes it: for failures below HTTP, and for exact bytes.
class RawServer {
 public:
  using Script = std::function<void(Connection&)>;

  explicit RawServer(Script script);
  /// Cuts the connections and waits for the scripts to end.
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string uri(const std::string& path = "/file") const;
  /// Requests in the order of their completion.
  std::vector<RawRequest> requests() const;
  unsigned connections() const { return accepted_; }

 private:
  friend class Connection;

  void accept();
  void serve(int fd, unsigned number);
  void note(const RawRequest& request);

  const Script script_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<unsigned> accepted_ = 0;
  mutable std::mutex mutex_;
  bool stopping_ = false;
  std::vector<RawRequest> requests_;
  std::list<int> open_;
  std::list<std::thread> workers_;
  std::thread acceptor_;
};

/// A response with this body and its length.
std::string okResponse(std::string_view body);

/// A script that answers every request of a connection with `response`.
RawServer::Script answering(std::string response);

/// A script that reads a request, answers with `bytes` and closes the connection.
RawServer::Script once(std::string bytes);

/// A script that reads a request, answers with `begun` and then waits for the peer to close.
RawServer::Script stalling(std::string begun = "");

}  // namespace kova::engine
