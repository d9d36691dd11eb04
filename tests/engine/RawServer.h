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

/// What a client sent: the head with its empty line, and the body with a chunked coding undone.
struct RawRequest {
  std::string head;
  std::string body;

  /// The value of a header field (name without regard to case), "" when absent.
  std::string header(std::string_view name) const;
};

class RawServer;

/// One accepted connection, as a script sees it. Nothing throws: once the peer has gone, or the
/// server stops, reading gives nothing and sending does nothing.
class Connection {
 public:
  Connection(RawServer& server, int fd, unsigned number);

  /// 0 for the first connection the server accepted, 1 for the second, ...
  unsigned number() const { return number_; }
  /// For a protocol below HTTP, as long as nothing was read or sent by the calls below.
  int descriptor() const { return fd_; }
  /// Whether there was another whole request; it is in `request()` then, and in the server's log.
  bool readRequest();
  /// Reads a head only, and leaves what follows unread.
  bool readHead();
  /// Reads what follows the head that was read: the whole request is then in the server's log.
  bool readBody();
  const RawRequest& request() const { return request_; }
  void send(std::string_view bytes);
  /// Sends `bytes` one at a time, `milliseconds` apart, until done or the peer has gone.
  void trickle(std::string_view bytes, int milliseconds);
  /// Waits until the peer closes.
  void awaitClose();
  /// Lets the close that follows reset the connection instead of ending it.
  void resetOnClose();

 private:
  bool receive();
  bool receiveBody();
  bool readChunked();
  /// Moves so many bytes to the end of `to`.
  bool readBytes(std::size_t count, std::string& to);
  /// Moves all up to the end of `mark` into `to`.
  bool readUntil(std::string_view mark, std::string& to);

  RawServer& server_;
  int fd_;
  unsigned number_;
  std::string buffered_;
  RawRequest request_;
};

/// A server on a free port of the loopback interface that runs a script on each connection, one
/// thread each, and then closes it: for what goes wrong below HTTP, and for exact bytes.
class RawServer {
 public:
  using Script = std::function<void(Connection&)>;

  explicit RawServer(Script script);
  /// Cuts the connections and waits for the scripts to end.
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string uri(const std::string& path = "/file") const;
  /// Requests in the order in which they were complete.
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

/// A script that takes a request, answers with `bytes` and closes the connection.
RawServer::Script once(std::string bytes);

/// A script that takes a request, answers with `begun` and then waits for the peer to close.
RawServer::Script stalling(std::string begun = "");

}  // namespace kova::engine
