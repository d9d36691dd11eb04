#pragma once

#include <memory>
#include <string>

#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class BaseHandler;
class TransactionsHandler;

/// The process's connection to the camera's message bus.
///
/// An endpoint named E owns the bus name "kova.E" and serves the object "/kova" with the interface
/// "kova.Ipc1"; see docs/bus.md for the protocol. Everything happens on the thread that calls
/// Service(), and nothing but Init() and Service() with a time-out ever blocks. Failures are logged
/// where they happen and returned as false.
class Ipc {
 public:
  /// The process-wide instance, made at the first call; null only when memory is exhausted.
  static Ipc* GetInstance();
  /// Closes the connection and destroys the instance. Handlers are not owned and stay.
  static void FreeInstance();

  Ipc();
  ~Ipc();
  Ipc(const Ipc&) = delete;
  Ipc& operator=(const Ipc&) = delete;

  /// Joins the bus at KOVA_BUS_ADDRESS, else unix:path=/run/kova/bus.
  ///
  /// @param endpoint          name to own, without the leading "kova."; "" joins without a name, to
  /// send only
  /// @param receiveBroadcasts whether Broadcast signals of other endpoints are delivered to the
  /// handlers
  /// @param transactions      told of the answers to this endpoint's own requests; may be null; not
  /// owned
  /// @return false when the bus cannot be reached, or the name is invalid, taken or not allowed
  bool Init(const std::string& endpoint, bool receiveBroadcasts, TransactionsHandler* transactions);

  /// Routes requests of this function name to `handler`, which must outlive the connection. The
  /// empty name takes what no other handler was added for. False when the name is taken already.
  bool AddHandler(const std::string& functionName, BaseHandler* handler);

  /// Handles what is pending and returns; at most 128 messages a call and no new one after 40 ms,
  /// so that a flood cannot hold the caller. Waits up to `timeoutMs` for the first message when
  /// nothing is pending.
  /// @return false when the connection is lost
  bool Service(unsigned timeoutMs);

  /// Sends a request or event, normalised, with `from` filled in when empty: as a broadcast when
  /// isBroadcast, else to the endpoint `to`. When nobody owns that name the message waits for it in
  /// a queue (queueIfDestUnavailable), at most 256 messages a destination, the oldest dropped
  /// first; a message of more than 1 MiB or nested too deeply for the bus is refused. Never blocks.
  /// @return false when not joined, the destination is no valid name, or is absent and queueing is
  /// off, or the message cannot be sent
  bool SendRequest(messages::BaseRequestMessage& request);

  /// Answers the request that is being handled; allowed once, from within
  /// BaseHandler::HandleRequest. `requestId`, `to` and `from` are filled in.
  /// @return false when no such request is being handled or the answer could not be sent
  bool SendResponse(messages::BaseRequestMessage& request, messages::BaseResponseMessage& response);

  /// The endpoint's name as given to Init; "" before that.
  const std::string& Endpoint() const;
  /// Whether some endpoint of this name is on the bus.
  bool IsPresent(const std::string& endpoint) const;

 private:
  class Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace kova::ipc
